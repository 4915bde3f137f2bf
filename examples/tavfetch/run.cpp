#include "run.h"

#include <openssl/evp.h>

#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "errors.h"
#include "progress.h"
#include "report.h"
#include "retry.h"
#include "session_options.h"
#include "system.h"
#include "text.h"
#include "url.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

static const milliseconds REDRAW_INTERVAL(100);

// How long the closed sessions may take to end after a signal.
static const std::chrono::seconds LONGEST_FAREWELL(1);

static const int MOST_REDIRECTS = 11;

// The state of one run.
struct fetch_run {
    const arguments* args;
    event_queue events;
    std::vector<std::unique_ptr<transfer>> transfers;
    std::vector<transfer*> running;
    size_t next = 0;
    bool has_warned = false;
    int exit_code = EXIT_OK;
};

// "user:password", percent-encoded, as the value of a header line.
static std::string basic_authorization(const std::string& login) {
    if (login.empty()) {
        return "";
    }
    size_t colon = login.find(':');
    std::string plain = percent_decode(login.substr(0, colon)) + ":";
    if (colon != std::string::npos) {
        plain += percent_decode(login.substr(colon + 1));
    }
    std::string encoded((plain.size() + 2) / 3 * 4 + 1, '\0');
    EVP_EncodeBlock((unsigned char*)&encoded[0], (const unsigned char*)plain.data(),
                    (int)plain.size());
    encoded.pop_back();
    return "Basic " + encoded;
}

// Whether a redirect to another host must not take everything along that this one got.
static bool has_host_settings(const transfer& item) {
    const arguments& args = *item.args;
    bool has_secrets = !item.authorization.empty() || !args.cookie.empty();
    for (const text_pair& header : args.headers) {
        has_secrets = has_secrets || is_secret_header(header.first);
    }
    // Each host may have another proxy of the environment.
    return has_secrets || (!args.proxy && !args.no_proxy);
}

static void make_transfers(fetch_run* run) {
    std::set<std::string> taken;
    for (const std::string& url : run->args->urls) {
        auto item = std::make_unique<transfer>();
        item->args = run->args;
        item->events = &run->events;
        item->url = complete_url(url);
        item->authorization = basic_authorization(take_login(&item->url));
        item->current_url = item->url;
        item->has_host_settings = has_host_settings(*item);
        item->target = choose_target(*run->args, item->url, &taken);
        item->wants_text = item->target.kind == TARGET_STREAM && is_output_terminal();
        if (run->args->checksum && item->target.kind != TARGET_MEMORY) {
            item->stream_sum = begin_checksum(run->args->checksum->algorithm);
        }
        std::string name = item->target.path.empty() ? name_of_url(item->url) : item->target.path;
        item->label = printable(name.substr(name.find_last_of("/\\") + 1));
        run->transfers.push_back(std::move(item));
    }
}

static void warn_of_https(fetch_run* run, const std::string& url) {
    if (scheme_of(url) == "https" && run->args->tls_name.empty() && !run->args->quiet &&
        !run->has_warned) {
        run->has_warned = true;
        print_line("tavfetch: warning: nobody checks who the https server is without --tls-name; "
                   "compare a --checksum");
    }
}

static void start_waiting(fetch_run* run) {
    // Bodies on standard output follow one another.
    bool one_by_one = run->args->output == "-" || run->args->to_memory;
    size_t limit = one_by_one ? 1 : run->args->parallel;
    while (pending_signal() == 0 && run->running.size() < limit &&
           run->next < run->transfers.size()) {
        transfer* item = run->transfers[run->next++].get();
        warn_of_https(run, item->url);
        if (!run->args->quiet) {
            print_line(item->label + ": " + (is_post(*run->args) ? "sending to " : "fetching ") +
                       printable(item->url));
        }
        run->running.push_back(item);
        item->started = steady_clock::now();
        item->failure = {EXIT_FILE, open_target(&item->target, *run->args)};
        if (item->failure.text.empty()) {
            start_transfer(item);
        } else {
            push_event(item->events, {EVENT_COMPLETE, item, 0, ""});
        }
    }
}

static void say(const transfer& item, const std::string& text) {
    if (!item.args->quiet) {
        print_line(item.label + ": " + text);
    }
}

// From the start again: a file in place stays until the new one is complete.
static bool start_anew(transfer* item, transfer_result* result) {
    std::string complaint;
    say(*item, "the server cannot continue, fetching the whole file");
    if (!item->target.folder.empty()) {
        close_target(&item->target);
    }
    complaint = move_to_folder(&item->target);
    if (!complaint.empty()) {
        result->failure = {EXIT_FILE, complaint};
        return false;
    }
    item->target.replaces = item->target.replaces || item->args->resume;
    start_transfer(item);
    return true;
}

static bool start_redirected(transfer* item, transfer_result* result) {
    if (++item->redirects > MOST_REDIRECTS) {
        result->verdict = VERDICT_NONE;
        result->code = TAV_HTTP_ERROR_CODE_TOO_MANY_REDIRECT;
        return false;
    }
    item->current_url = item->redirect_url;
    take_login(&item->current_url);
    start_transfer(item);
    return true;
}

static void wait_for_retry(transfer* item, const transfer_result& result, milliseconds delay) {
    item->retries++;
    item->redirects = 0;
    item->wake_at = steady_clock::now() + delay;
    item->current_url = item->url;
    say(*item, explain_failure(result) + "; attempt " + std::to_string(item->retries + 1) + " in " +
                   std::to_string((double)delay.count() / 1000).substr(0, 5) + " s");
}

// True when the transfer goes on with another session.
static bool go_on(transfer* item, transfer_result* result) {
    milliseconds delay(0);
    if (pending_signal() != 0) {
        return false;
    }
    if (!result->validator.empty()) {
        item->validator = result->validator;
    }
    if (result->verdict == VERDICT_RESTART) {
        return start_anew(item, result);
    }
    if (result->verdict == VERDICT_REDIRECT) {
        return start_redirected(item, result);
    }
    if (result->is_broken && !item->has_repeated) {
        item->has_repeated = true;
        start_transfer(item);
        return true;
    }
    if (!choose_retry(*item, *result, &delay)) {
        return false;
    }
    wait_for_retry(item, *result, delay);
    return true;
}

static void handle_complete(fetch_run* run, transfer* item, uint32_t code) {
    forget_progress(item);
    transfer_result result = finish_transfer(item, code);
    if (go_on(item, &result)) {
        return;
    }
    for (size_t i = 0; i < run->running.size(); i++) {
        if (run->running[i] == item) {
            run->running.erase(run->running.begin() + (std::ptrdiff_t)i);
            break;
        }
    }
    settle_transfer(item, &result);
    int exit_code = report_result(*item, result);
    if (run->exit_code == EXIT_OK) {
        run->exit_code = exit_code;
    }
}

static void handle_event(fetch_run* run, const transfer_event& event) {
    if (event.kind == EVENT_COMPLETE) {
        handle_complete(run, event.owner, event.code);
        return;
    }
    warn_of_https(run, event.text);
    say(*event.owner, "redirected to " + shown_url(event.text));
}

static void start_retries(fetch_run* run) {
    for (transfer* item : run->running) {
        if (item->wake_at != time_point() && item->wake_at <= steady_clock::now()) {
            item->wake_at = time_point();
            start_transfer(item);
        }
    }
}

// Closing wakes the library's steps, where cancelling would wait for them. One that does not end in
// time, such as a write to a pipe that nobody reads, ends with the process.
[[noreturn]] static void stop(fetch_run* run, int number) {
    stop_progress();
    for (transfer* item : run->running) {
        if (item->session != nullptr) {
            tavHTTPClose(item->session);
        }
    }
    std::promise<void> ended;
    std::thread([&ended] {
        tavHTTPShutdown();
        ended.set_value();
    }).detach();
    ended.get_future().wait_for(LONGEST_FAREWELL);
    for (transfer* item : run->running) {
        transfer_result result = interrupted_result(item);
        item->target.stream = nullptr;  // its last bytes may wait for a reader for ever
        settle_transfer(item, &result);
        report_result(*item, result);
    }
    if (run->next < run->transfers.size()) {
        print_line("tavfetch: not started: " + std::to_string(run->transfers.size() - run->next));
    }
    end_by_signal(number);
}

static void run_transfers(fetch_run* run) {
    while (run->next < run->transfers.size() || !run->running.empty()) {
        start_waiting(run);
        transfer_event event;
        if (pop_event(&run->events, REDRAW_INTERVAL, &event)) {
            handle_event(run, event);
        }
        if (pending_signal() != 0) {
            stop(run, pending_signal());
        }
        start_retries(run);
        show_progress(run->running);
    }
    stop_progress();
}

static progress_mode choose_progress(const arguments& args) {
    if (args.quiet || args.output == "-" || args.head) {
        return PROGRESS_OFF;
    }
    return is_terminal() ? PROGRESS_BARS : PROGRESS_LINES;
}

int fetch_all(const arguments& args) {
    std::string complaint = prepare_directory(args);
    if (!complaint.empty()) {
        print_line("tavfetch: " + complaint);
        tavHTTPShutdown();
        return EXIT_FILE;
    }
    tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, args.parallel);
    fetch_run run;
    run.args = &args;
    make_transfers(&run);
    start_progress(choose_progress(args));
    run_transfers(&run);
    // The transfers outlive the library's threads, which end here.
    tavHTTPShutdown();
    return run.exit_code;
}
