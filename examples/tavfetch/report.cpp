#include "report.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "errors.h"
#include "progress.h"
#include "system.h"
#include "text.h"

namespace fs = std::filesystem;

// The rate of less says nothing about the network.
static const uint64_t LEAST_BYTES_FOR_RATE = 65536;

// A transfer that broke off half-way and left nothing, because it was not a resumable one.
static bool could_have_been_kept(const transfer& item, const transfer_result& result) {
    int exit_code = exit_code_of(result);
    bool broke_off =
        exit_code == EXIT_NETWORK || exit_code == EXIT_TIMEOUT || exit_code == EXIT_CANCELLED;
    return broke_off && result.verdict == VERDICT_NONE && result.position > 0 &&
           !item.args->resume && !item.args->range;
}

static void print_failure(const transfer& item, const transfer_result& result) {
    print_line("tavfetch: " + printable(item.url) + ": " + explain_failure(result));
    if (item.target.kind != TARGET_FILE || is_post(*item.args)) {
        return;
    }
    std::string command = resume_command(item, result);
    if (!command.empty() && result.failure.text.empty()) {
        std::error_code error;
        uintmax_t size = fs::file_size(fs::u8path(result.file), error);
        print_line("  " + format_bytes((double)size) + " are kept in " + printable(result.file) +
                   "; to go on from there:");
        print_line("  " + command);
    } else if (could_have_been_kept(item, result)) {
        print_line("  nothing was kept; a transfer that is started with --resume can be continued");
    }
}

static std::string describe_target(const transfer& item, const transfer_result& result) {
    if (result.code == TAV_HTTP_ERROR_CODE_NOT_MODIFIED) {
        return "not changed on the server, nothing was fetched";
    }
    if (result.verdict == VERDICT_COMPLETE) {
        return item.target.path + " is complete already";
    }
    if (result.status >= 300 && !result.location.empty()) {
        return std::to_string(result.status) + " " + printable(result.status_text) + ", to " +
               result.location;
    }
    switch (item.target.kind) {
    case TARGET_STREAM:
        return "written to " + (item.target.path.empty() ? "standard output" : item.target.path);
    case TARGET_MEMORY:
        return "received";
    case TARGET_NONE:
        return std::to_string(result.status) + " " + printable(result.status_text);
    default:
        return result.file.empty() ? "no body" : "saved to " + printable(result.file);
    }
}

static void print_success(const transfer& item, const transfer_result& result) {
    std::string line = item.label + ": " + describe_target(item, result);
    if (result.bytes > 0) {
        char seconds[32];
        snprintf(seconds, sizeof(seconds), "%.1f s", result.total_seconds);
        line += ", " + format_bytes((double)result.bytes) + " in " + seconds;
        if (result.bytes >= LEAST_BYTES_FOR_RATE) {
            double rate = (double)result.bytes / std::max(result.total_seconds, 0.001);
            line += " (" + format_bytes(rate) + "/s)";
        }
        if (result.resumed_from > 0) {
            line += ", resumed at " + format_bytes((double)result.resumed_from);
        }
    }
    print_line(line);
    if (!result.md5.empty()) {
        print_line("  md5 " + result.md5 +
                   (result.resumed_from > 0 ? " (of the bytes received now)" : ""));
    }
    if (item.args->checksum && result.code == TAV_HTTP_ERROR_CODE_OK) {
        print_line("  " + item.args->checksum->algorithm + " as expected");
    }
}

static void print_json(const transfer& item, const transfer_result& result) {
    // The body has standard output for itself.
    FILE* stream = item.target.kind == TARGET_STREAM ? stderr : stdout;
    fputs((json_line(item, result) + "\n").c_str(), stream);
    fflush(stream);
}

// The body or the headers that were asked for.
static own_failure print_payload(const transfer& item, const transfer_result& result) {
    const std::string& text = item.target.kind == TARGET_NONE ? result.headers : result.body;
    if (item.args->json || text.empty()) {
        return {};
    }
    if (item.target.kind == TARGET_NONE) {
        printf("HTTP %u %s\r\n", (unsigned)result.status, result.status_text.c_str());
    } else if (is_output_terminal() && !is_text(text.data(), text.size())) {
        return {EXIT_FILE, "the body is no text and would spoil the terminal; send it through a "
                           "pipe, or to a file"};
    }
    bool ok = fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
    return ok ? own_failure() : own_failure{EXIT_FILE, "standard output could not be written"};
}

int report_result(const transfer& item, const transfer_result& result) {
    // Bars that are redrawn would erase what standard output adds to the same terminal.
    stop_progress();
    transfer_result final = result;
    if (final.failure.text.empty()) {
        final.failure = print_payload(item, result);
    }
    if (!is_success(final)) {
        print_failure(item, final);
    } else if (!item.args->quiet) {
        print_success(item, final);
    }
    if (item.args->json) {
        print_json(item, final);
    }
    return exit_code_of(final);
}
