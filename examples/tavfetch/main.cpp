// tavfetch: fetches and uploads from the command line, as a host of the library would.
//
// The main thread starts transfers, waits for their events and draws (run.cpp); the library's
// threads only count, write and push events (transfer.cpp).
#include <sstream>

#include "errors.h"
#include "progress.h"
#include "run.h"
#include "system.h"
#include "text.h"
#include "trace.h"

static int32_t log_limit = 0;  // set before the library is given print_log

// Any thread of the library. What a server sent may be in the text.
static void print_log(int32_t level, const char* tag, const char* text) {
    if (level > log_limit) {
        return;
    }
    std::istringstream lines(without_secrets(text));
    std::string clean = std::string(tag) + " " + std::to_string(level) + " ";
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        clean += printable(line) + (lines.eof() ? "" : "\n");
    }
    print_line(clean);
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
