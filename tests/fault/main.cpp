// fault_injection: every transfer again and again, each time with the next call failing.
//
//   fault_injection [--only SCENARIO] [--function NAME] [--at N] [--limit N] [--deadline MS]
//
// --limit (or FAULT_LIMIT in the environment) tries at most N points per scenario, spread evenly;
// 0 tries all of them. --at tries one point only, and says where it is.
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>

#include "tests/fault/fault_run.h"
#include "tests/fault/fault_scenarios.h"
#include "tests/fault/fault_wrap.h"
#include "tests/support/host.h"

extern char** environ;

namespace {

constexpr int first_start_skipped = 4;  // exit code: the point does not exist

struct arguments {
    std::string only;
    const char* function = nullptr;
    long at = 0;
    long limit = 0;
    int deadline_ms = 10000;
    bool first_start = false;
};

arguments given;

struct point_result {
    bool reached = false;
    long calls = 0;
    std::string function;
    std::string outcome;
    bool failed = false;
};

void report(const std::string& name, long point, const std::vector<std::string>& failures) {
    const char* hit = fault_hit();
    std::printf("%s %s, point %ld, failed call: %s\n", failures.empty() ? "Good:" : "FAIL",
                name.c_str(), point, hit != nullptr ? hit : "none");
    for (const std::string& failure : failures) {
        std::printf("  %s\n", failure.c_str());
    }
    std::printf("%s%s", fault_trace().c_str(), log_tail().c_str());
    std::fflush(stdout);
}

// The servers close theirs a little later than the library.
bool descriptors_closed(std::size_t count) {
    return wait_until([count] { return open_descriptors() <= count; }, milliseconds(3000));
}

// A plain transfer, to show that the library is in order.
bool works(scripted_server& server) {
    fault_run run;
    attempt* one = run.open(server.url("/works"));
    bool ok = one != nullptr && run.finish(one) && run.body(one) == "works";
    run.close_all();
    return ok;
}

std::string works_answer(const received_request&) {
    return response(200, "works");
}

// ------------------------------------------------------------------------------------- transfers

// What the log says in a run of the scenario without a fault.
std::set<std::string> usual_lines;

bool log_tells_of_fault() {
    for (const std::string& line : log_said()) {
        if (usual_lines.count(line) == 0) {
            return true;
        }
    }
    return false;
}

bool ends_with_code_anyway(const std::string& name) {
    return name == "cancelled" || name == "https_other_name";
}

point_result run_point(const scenario& now, const std::function<void(fault_run&)>& body,
                       long point) {
    watchdog_next(now.name + ", point " + std::to_string(point));
    log_start();
    std::size_t descriptors = open_descriptors();
    long blocks = fault_live_blocks();
    fault_run run;
    run.expect(tavHTTPStartup() == 0, "the start failed");
    fault_arm(point, given.function);
    body(run);
    run.close_all();
    run.expect(tavHTTPShutdown() == 0, "the shut-down failed");
    fault_disarm();
    run.check_completions();

    point_result result;
    result.reached = fault_hit() != nullptr;
    result.calls = fault_calls();
    result.function = result.reached ? fault_hit() : "";
    result.outcome = run.outcome();
    run.expect(point != 0 || run.outcome() == "no effect" || ends_with_code_anyway(now.name),
               "without a fault: " + run.outcome());
    run.expect(point == 0 || run.outcome().find("completed with") != 0 ||
                   ends_with_code_anyway(now.name) || log_tells_of_fault(),
               "nothing in the log, " + run.outcome());
    run.expect(descriptors_closed(descriptors), "descriptors were left open");
    run.expect(fault_live_blocks() == blocks,
               std::to_string(fault_live_blocks() - blocks) + " blocks of memory were left");
    result.failed = !run.failures().empty();
    if (result.failed || given.at != 0) {
        report(now.name, point, run.failures());
    }
    return result;
}

// ------------------------------------------------------------------------------------- the start

point_result run_start_point(scripted_server& server, long point) {
    watchdog_next("startup, point " + std::to_string(point));
    log_start();
    std::size_t descriptors = open_descriptors();
    long blocks = fault_live_blocks();
    fault_run run;
    fault_arm(point, given.function);
    std::uint32_t code = tavHTTPStartup();
    fault_disarm();

    point_result result;
    result.reached = fault_hit() != nullptr;
    result.calls = fault_calls();
    result.function = result.reached ? fault_hit() : "";
    if (code != 0) {
        result.outcome = "tavHTTPStartup gave " + code_text(code);
        run.expect(result.reached && code == TAV_HTTP_ERROR_CODE_FAIL_RUN_EVENT_LOOP,
                   result.outcome);
    } else {
        result.outcome = "no effect";
        run.expect(works(server), "no transfer after the start");
    }
    run.expect(tavHTTPShutdown() == 0, "the shut-down failed");
    // libuv keeps a few for the whole process from its first loop on.
    run.expect(given.first_start || descriptors_closed(descriptors), "descriptors were left open");
    run.expect(tavHTTPStartup() == 0, "the start after it failed");
    run.expect(works(server), "no transfer after the second start");
    tavHTTPShutdown();
    // The first socket of the process fills a cache, in whatever run it is made.
    run.expect(fault_live_blocks() <= blocks + (given.first_start ? 2 : 0),
               std::to_string(fault_live_blocks() - blocks) + " blocks of memory were left");
    result.failed = !run.failures().empty();
    if (result.failed || given.at != 0) {
        report("startup", point, run.failures());
    }
    return result;
}

// Locks are made by the first start of a process only, so each of its points needs a new one.
point_result run_first_start_point(long point) {
    char program[4096] = "";
    point_result result;
    if (readlink("/proc/self/exe", program, sizeof program - 1) <= 0) {
        return result;
    }
    std::string number = std::to_string(point);
    char* argv[] = {program, const_cast<char*>("--first-start"), const_cast<char*>("--at"),
                    &number[0], nullptr};
    pid_t child = 0;
    int status = 0;
    watchdog_next("first start, point " + number);
    if (posix_spawn(&child, program, nullptr, nullptr, argv, environ) != 0 ||
        waitpid(child, &status, 0) != child) {
        result.failed = true;
        return result;
    }
    int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128;
    result.reached = code != first_start_skipped;
    result.failed = result.reached && code != 0;
    result.outcome = code == 0 ? "started or refused" : "exit code " + std::to_string(code);
    if (result.failed) {
        std::printf("FAIL first start, point %ld, exit code %d\n", point, code);
    }
    return result;
}

// ------------------------------------------------------------------------------------- the table

struct totals {
    long points = 0;
    long failures = 0;
};

void print_table(const std::string& name, const std::vector<point_result>& results, totals* all) {
    std::map<std::string, int> outcomes;
    long failed = 0;
    for (const point_result& result : results) {
        outcomes[result.outcome]++;
        failed += result.failed ? 1 : 0;
    }
    std::printf("%-18s %4zu points, %ld bad\n", name.c_str(), results.size(), failed);
    for (const auto& entry : outcomes) {
        std::printf("    %5d  %s\n", entry.second, entry.first.c_str());
    }
    std::fflush(stdout);
    all->points += static_cast<long>(results.size());
    all->failures += failed;
}

// Point 1, 2, 3, ... until one is not reached; with a limit, evenly spread over the `count` calls
// that a run without a fault makes.
void run_points(const std::string& name, long count,
                const std::function<point_result(long)>& run_one, totals* all) {
    std::vector<point_result> results;
    if (given.at != 0) {
        results.push_back(run_one(given.at));
        print_table(name, results, all);
        return;
    }
    long step = given.limit > 0 ? (count + given.limit - 1) / given.limit : 1;
    for (long point = 1;; point += step > 0 ? step : 1) {
        point_result result = run_one(point);
        if (!result.reached) {
            all->failures += result.failed ? 1 : 0;
            break;
        }
        results.push_back(result);
    }
    print_table(name, results, all);
}

bool is_chosen(const std::string& name) {
    return given.only.empty() || given.only == name;
}

void run_all(totals* all) {
    for (const scenario& now : all_scenarios()) {
        if (!is_chosen(now.name)) {
            continue;
        }
        std::function<void(fault_run&)> body = now.make();
        // What is made once per process is made before anything is counted.
        tavHTTPStartup();
        fault_run warm_up;
        body(warm_up);
        warm_up.close_all();
        tavHTTPShutdown();
        point_result plain = run_point(now, body, 0);
        all->failures += plain.failed ? 1 : 0;
        usual_lines = log_said();
        run_points(
            now.name, plain.calls, [&](long point) { return run_point(now, body, point); }, all);
    }
    scripted_server server(works_answer);
    if (is_chosen("startup")) {
        run_start_point(server, 0);
        point_result plain = run_start_point(server, 0);
        all->failures += plain.failed ? 1 : 0;
        run_points(
            "startup", plain.calls, [&](long point) { return run_start_point(server, point); },
            all);
    }
    if (is_chosen("first_start")) {
        run_points("first_start", 60, run_first_start_point, all);
    }
}

bool read_arguments(int argc, char** argv) {
    const char* limit = getenv("FAULT_LIMIT");
    given.limit = limit != nullptr ? atol(limit) : 0;
    for (int i = 1; i < argc; i++) {
        std::string option = argv[i];
        if (option == "--first-start") {
            given.first_start = true;
        } else if (i + 1 == argc) {
            return false;
        } else if (option == "--only") {
            given.only = argv[++i];
        } else if (option == "--function") {
            given.function = argv[++i];
        } else if (option == "--at") {
            given.at = atol(argv[++i]);
        } else if (option == "--limit") {
            given.limit = atol(argv[++i]);
        } else if (option == "--deadline") {
            given.deadline_ms = atoi(argv[++i]);
        } else {
            return false;
        }
    }
    return true;
}

// Names the point of a crash; a sanitizer's report has the trace.
void on_crash(int number) {
    const char* hit = fault_hit();
    std::printf("CRASH, signal %d, failed call: %s\n%s%s", number, hit != nullptr ? hit : "none",
                fault_trace().c_str(), log_tail().c_str());
    std::fflush(stdout);
    _exit(128 + number);
}

int run_first_start() {
    scripted_server server(works_answer);
    long point = given.at;
    given.at = 0;
    point_result result = run_start_point(server, point);
    if (result.failed) {
        return 1;
    }
    return result.reached ? 0 : first_start_skipped;
}

}  // namespace

int main(int argc, char** argv) {
    if (!read_arguments(argc, argv)) {
        std::fprintf(stderr, "usage: fault_injection [--only SCENARIO] [--function NAME] [--at N] "
                             "[--limit N] [--deadline MS]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    signal(SIGSEGV, on_crash);
#endif
    signal(SIGABRT, on_crash);
    watchdog_start(given.deadline_ms);
    int code = 0;
    if (given.first_start) {
        code = run_first_start();
    } else {
        totals all;
        run_all(&all);
        std::printf("%ld points in all, %ld bad\n", all.points, all.failures);
        code = all.failures == 0 && all.points > 0 ? 0 : 1;
    }
    watchdog_stop();
    tavHTTPSetLogCallback(nullptr);
    return code;
}
