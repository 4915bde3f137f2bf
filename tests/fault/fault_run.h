// One run of a scenario with one failing call, and what must hold afterwards.
#ifndef TESTS_FAULT_FAULT_RUN_H
#define TESTS_FAULT_FAULT_RUN_H

#include "tavhttpclient/tavhttpclient.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

// A session of the scenario. It outlives the library's threads, since callbacks write to it.
struct attempt {
    http_session* session = nullptr;
    std::mutex mutex;  // guards what follows
    std::condition_variable changed;
    int completions = 0;
    std::uint32_t code = 0;
    bool started = false;    // tavHTTPSendRequest has succeeded
    bool abandoned = false;  // closed before its completion: none need come
};

// What a scenario works with. Its calls are made while the fault is armed.
class fault_run {
  public:
    // A session with the recording callbacks; null when tavHTTPOpen refused.
    attempt* open(const std::string& url, std::uint32_t method = TAV_HTTP_METHOD_GET,
                  const proxy_info* proxy = nullptr);

    // False when the option was refused; the scenario then leaves the session unsent.
    template <typename... values> bool set(attempt* one, std::uint32_t option, values... given) {
        return took(option, tavHTTPSetOption(one->session, option, given...));
    }

    bool send(attempt* one);
    // Waits for the completion; true when its code is 0. The watchdog ends a wait without end.
    bool wait(attempt* one);
    // send() and wait().
    bool finish(attempt* one) {
        return send(one) && wait(one);
    }
    void close(attempt* one);

    std::string body(const attempt* one) const;
    std::string header(const attempt* one, const std::string& name) const;
    std::string md5(const attempt* one) const;

    // Notes a fault of the library.
    void expect(bool condition, const std::string& what);
    // Notes what the fault led to, for the summary.
    void outcome(const std::string& text) {
        outcome_ = text;
    }

    const std::vector<std::string>& failures() const {
        return failures_;
    }
    const std::string& outcome() const {
        return outcome_;
    }
    // Before the shut-down, and after it.
    void close_all();
    void check_completions();

  private:
    bool took(std::uint32_t option, std::uint32_t code);

    std::vector<std::unique_ptr<attempt>> attempts_;
    std::vector<std::string> failures_;
    std::string outcome_ = "no effect";
};

std::string code_text(std::uint32_t code);

// Aborts the program, naming the point, when nothing has moved it on within the deadline.
void watchdog_start(int deadline_ms);
void watchdog_next(const std::string& point);
void watchdog_stop();

// Keeps the last lines of the log for a report.
void log_start();
std::string log_tail();
// The lines since log_start, each kind once, without its values.
std::set<std::string> log_said();

#endif
