// tavfetch: fetches and uploads from the command line, as a host of the library would.
//
// The main thread starts transfers, waits for their events and draws (run.cpp); the library's
// threads only count, write and push events (transfer.cpp).
#include "errors.h"
#include "progress.h"
#include "run.h"
#include "system.h"
#include "trace.h"

static int32_t log_limit = 0;  // set before the library is given print_log

// Any thread of the library.
static void print_log(int32_t level, const char* tag, const char* text) {
    if (level <= log_limit) {
        print_line(std::string(tag) + " " + std::to_string(level) + " " + without_secrets(text));
    }
}

int main(int argc, char** argv) {
    arguments args;
    int exit_code = parse_arguments(utf8_arguments(argc, argv), &args);
    if (exit_code >= 0) {
        return exit_code;
    }
    prepare_streams();
    watch_signals();
    if (args.log_level > 0) {
        log_limit = args.log_level;
        tavHTTPSetLogCallback(print_log);
    }
    hold_signals(true);
    uint32_t code = tavHTTPStartup();
    hold_signals(false);
    if (code != 0) {
        print_line("tavfetch: the library could not start its thread");
        return EXIT_INTERNAL;
    }
    return fetch_all(args);
}
