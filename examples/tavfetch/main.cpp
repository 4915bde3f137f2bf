// tavfetch: fetches and uploads from the command line, as a host of the library would.
//
// The main thread starts transfers, waits for their events and draws; the library's threads only
// count and push events (transfer.cpp).
#include <csignal>
#include <cstdlib>
#include <memory>

#include "errors.h"
#include "progress.h"
#include "report.h"
#include "terminal.h"

static const std::chrono::milliseconds REDRAW_INTERVAL(100);

static volatile std::sig_atomic_t interrupts = 0;

static void on_signal(int number) {
    if (interrupts > 0) {
        std::_Exit(EXIT_CANCELLED);
    }
    interrupts = 1;
    std::signal(number, on_signal);
}

// The state of one run.
struct fetch_run {
    const arguments* args;
    event_queue events;
    std::vector<std::unique_ptr<transfer>> transfers;
    std::vector<transfer*> running;
    size_t next = 0;
    bool cancelled = false;
    int exit_code = EXIT_OK;
};

static int32_t log_limit = 0;  // set before the library is given print_log

// Any thread of the library.
static void print_log(int32_t level, const char* tag, const char* text) {
    if (level <= log_limit) {
        print_line(std::string(tag) + " " + std::to_string(level) + " " + text);
    }
}

static void make_transfers(fetch_run* run) {
    std::set<std::string> taken;
    for (const std::string& url : run->args->urls) {
        auto item = std::make_unique<transfer>();
        item->args = run->args;
        item->events = &run->events;
        item->url = url;
        item->target = choose_target(*run->args, url, &taken);
        item->label = item->target.path.empty()
                          ? name_of_url(url)
                          : item->target.path.substr(item->target.path.find_last_of("/\\") + 1);
        run->transfers.push_back(std::move(item));
    }
}

static void start_waiting(fetch_run* run) {
    // Bodies on standard output follow one another.
    bool one_by_one = run->args->output == "-" || run->args->to_memory;
    size_t limit = one_by_one ? 1 : run->args->parallel;
    while (!run->cancelled && run->running.size() < limit && run->next < run->transfers.size()) {
        transfer* item = run->transfers[run->next++].get();
        if (!run->args->quiet) {
            print_line(item->label + ": " + (is_post(*run->args) ? "sending to " : "fetching ") +
                       item->url);
        }
        run->running.push_back(item);
        start_transfer(item, run->args->resume);
    }
}

static void handle_complete(fetch_run* run, transfer* item, uint32_t code) {
    forget_progress(item);
    transfer_result result = finish_transfer(item, code);
    if (result.verdict == VERDICT_RESTART && !run->cancelled) {
        if (!run->args->quiet) {
            print_line(item->label + ": the server cannot continue, fetching the whole file");
        }
        start_transfer(item, false);
        return;
    }
    for (size_t i = 0; i < run->running.size(); i++) {
        if (run->running[i] == item) {
            run->running.erase(run->running.begin() + (std::ptrdiff_t)i);
            break;
        }
    }
    int exit_code = report_result(*item, result);
    if (run->exit_code == EXIT_OK) {
        run->exit_code = exit_code;
    }
}

static void handle_event(fetch_run* run, const transfer_event& event) {
    if (event.kind == EVENT_COMPLETE) {
        handle_complete(run, event.owner, event.code);
    } else if (!run->args->quiet) {
        print_line(event.owner->label + ": redirected to " + printable(event.text));
    }
}

// A cancelled session ends with the step that it waits in, which may take that step's time-out.
static void cancel_all(fetch_run* run) {
    run->cancelled = true;
    print_line("tavfetch: cancelling; Ctrl-C again leaves at once");
    for (transfer* item : run->running) {
        if (item->session != nullptr) {
            tavHTTPCancelRequest(item->session);
        }
    }
    if (run->next < run->transfers.size()) {
        print_line("tavfetch: not started: " + std::to_string(run->transfers.size() - run->next));
        run->next = run->transfers.size();
    }
    run->exit_code = EXIT_CANCELLED;
}

static void run_transfers(fetch_run* run) {
    while (run->next < run->transfers.size() || !run->running.empty()) {
        start_waiting(run);
        transfer_event event;
        if (pop_event(&run->events, REDRAW_INTERVAL, &event)) {
            handle_event(run, event);
        }
        if (interrupts > 0 && !run->cancelled) {
            cancel_all(run);
        }
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

static int fetch_all(const arguments& args) {
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

int main(int argc, char** argv) {
    arguments args;
    int exit_code = parse_arguments(argc, argv, &args);
    if (exit_code >= 0) {
        return exit_code;
    }
    prepare_streams();
    std::signal(SIGINT, on_signal);
    std::signal(SIGTERM, on_signal);
    if (args.log_level > 0) {
        log_limit = args.log_level;
        tavHTTPSetLogCallback(print_log);
    }
    if (tavHTTPStartup() != 0) {
        print_line("tavfetch: the library could not start its thread");
        return EXIT_INTERNAL;
    }
    return fetch_all(args);
}
