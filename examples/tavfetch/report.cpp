#include "report.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "errors.h"
#include "progress.h"
#include "terminal.h"

namespace fs = std::filesystem;

// The file may lack the bytes that the library had not written out yet: up to two receive buffers.
static const int64_t UNWRITTEN_BYTES = 65536;

// The rate of less says nothing about the network.
static const uint64_t LEAST_BYTES_FOR_RATE = 65536;

static bool is_success(const transfer_result& result) {
    return result.verdict == VERDICT_COMPLETE ||
           (result.verdict == VERDICT_NONE && exit_code_of(result.code, false) == EXIT_OK);
}

static int outcome_exit_code(const transfer_result& result) {
    switch (result.verdict) {
    case VERDICT_COMPLETE:
        return EXIT_OK;
    case VERDICT_RANGE_IGNORED:
        return EXIT_SERVER;
    case VERDICT_OUTPUT_CLOSED:
        return EXIT_FILE;
    default:
        return exit_code_of(result.code, result.in_handshake);
    }
}

static std::string explain_failure(const transfer_result& result) {
    if (result.verdict == VERDICT_RANGE_IGNORED) {
        return "the server ignored --range and sent the whole resource; nothing was written";
    }
    if (result.verdict == VERDICT_OUTPUT_CLOSED) {
        return "standard output could not be written";
    }
    return explain_code(result.code, result.status, result.status_text, result.in_handshake) +
           " (" + code_name(result.code) + ")";
}

static std::string shell_quote(const std::string& text) {
    static const char plain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                "_@%+=:,./-";
    if (!text.empty() && text.find_first_not_of(plain) == std::string::npos) {
        return text;
    }
    std::string quoted = "'";
    for (char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

static void add_option(std::string* command, const char* name, const std::string& value) {
    if (!value.empty()) {
        *command += std::string(" ") + name + " " + shell_quote(value);
    }
}

static void add_number(std::string* command, const char* name, int32_t value) {
    if (value > 0) {
        add_option(command, name, std::to_string(value));
    }
}

// The options that the next attempt needs to make the same request.
static std::string repeat_options(const arguments& args) {
    std::string command;
    for (const text_pair& header : args.headers) {
        add_option(&command, "-H", header.first + ": " + header.second);
    }
    add_option(&command, "--cookie", args.cookie);
    add_option(&command, "--proxy", args.proxy_text);
    add_option(&command, "--tls-name", args.tls_name);
    add_number(&command, "--connect-timeout", args.connect_timeout);
    add_number(&command, "--io-timeout", args.io_timeout);
    add_number(&command, "--timeout", args.session_timeout);
    if (args.priority_name != "normal") {
        add_option(&command, "--priority", args.priority_name);
    }
    return command;
}

// The command that goes on where a failed transfer left its file; empty when there is none.
static std::string resume_command(const transfer& item, const transfer_result& result) {
    const arguments& args = *item.args;
    std::error_code error;
    if (item.target.kind != TARGET_FILE || is_post(args) || result.file.empty() ||
        fs::file_size(fs::u8path(result.file), error) == 0 || error) {
        return "";
    }
    std::string command = shell_quote(args.program);
    if (args.range) {
        // What is at the end of the resource has no position that is known here.
        if (args.range->last < -1) {
            return "";
        }
        int64_t next = std::max(args.range->first, result.position - UNWRITTEN_BYTES);
        std::string last = args.range->last < 0 ? "" : std::to_string(args.range->last);
        add_option(&command, "--range", std::to_string(next) + "-" + last);
    } else {
        command += " --resume";
    }
    add_option(&command, "-o", result.file);
    return command + repeat_options(args) + " " + shell_quote(item.url);
}

// A transfer that broke off half-way and left nothing, because it was not a resumable one.
static bool could_have_been_kept(const transfer& item, const transfer_result& result) {
    int exit_code = exit_code_of(result.code, result.in_handshake);
    bool broke_off =
        exit_code == EXIT_NETWORK || exit_code == EXIT_TIMEOUT || exit_code == EXIT_CANCELLED;
    return broke_off && result.verdict == VERDICT_NONE && result.status == 200 &&
           result.bytes > 0 && !item.args->resume && !item.args->range;
}

static void print_failure(const transfer& item, const transfer_result& result) {
    print_line("tavfetch: " + item.url + ": " + explain_failure(result));
    if (item.target.kind != TARGET_FILE || is_post(*item.args)) {
        return;
    }
    std::string command = resume_command(item, result);
    if (!command.empty()) {
        std::error_code error;
        uintmax_t size = fs::file_size(fs::u8path(result.file), error);
        print_line("  " + format_bytes((double)size) + " are kept in " + result.file +
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
               printable(result.location);
    }
    switch (item.target.kind) {
    case TARGET_STREAM:
        return "written to standard output";
    case TARGET_MEMORY:
        return "received";
    case TARGET_NONE:
        return std::to_string(result.status) + " " + printable(result.status_text);
    default:
        return result.file.empty() ? "no body" : "saved to " + result.file;
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
}

// The bytes of the UTF-8 character at `i`; 0 when there is none.
static size_t utf8_length(const std::string& text, size_t i) {
    static const uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    unsigned char lead = (unsigned char)text[i];
    size_t length = lead < 0x80 ? 1 : lead < 0xC0 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (length < 2) {
        return length;
    }
    uint32_t value = lead & (0xFFu >> (length + 1));
    for (size_t k = 1; k < length; k++) {
        if (i + k >= text.size() || (text[i + k] & 0xC0) != 0x80) {
            return 0;
        }
        value = value << 6 | (text[i + k] & 0x3Fu);
    }
    bool is_surrogate = value >= 0xD800 && value < 0xE000;
    return lead > 0xF4 || value < least[length] || value > 0x10FFFF || is_surrogate ? 0 : length;
}

// Servers send any bytes; JSON is UTF-8.
static std::string json_text(const std::string& text) {
    if (text.empty()) {
        return "null";
    }
    std::string result = "\"";
    for (size_t i = 0; i < text.size();) {
        char escaped[8];
        size_t length = utf8_length(text, i);
        if (length == 0) {
            result += "\\ufffd";
        } else if (text[i] == '"' || text[i] == '\\') {
            result += std::string("\\") + text[i];
        } else if ((unsigned char)text[i] < 32) {
            snprintf(escaped, sizeof(escaped), "\\u%04x", (unsigned)text[i]);
            result += escaped;
        } else {
            result.append(text, i, length);
        }
        i += length == 0 ? 1 : length;
    }
    return result + "\"";
}

static std::string json_seconds(double seconds) {
    char text[32];
    snprintf(text, sizeof(text), "%.3f", seconds);
    return seconds < 0 ? "null" : text;
}

static void print_json(const transfer& item, const transfer_result& result) {
    bool ok = is_success(result);
    uint32_t code = result.verdict == VERDICT_COMPLETE ? 0 : result.code;
    std::string line =
        "{\"url\":" + json_text(item.url) + ",\"final_url\":" + json_text(result.final_url) +
        ",\"ok\":" + (ok ? "true" : "false") + ",\"status\":" + std::to_string(result.status) +
        ",\"bytes\":" + std::to_string(result.bytes) +
        ",\"resumed_from\":" + std::to_string(result.resumed_from) +
        ",\"connect_seconds\":" + json_seconds(result.connect_seconds) +
        ",\"first_byte_seconds\":" + json_seconds(result.first_byte_seconds) +
        ",\"total_seconds\":" + json_seconds(result.total_seconds) +
        ",\"peer\":" + json_text(result.peer) + ",\"file\":" + json_text(result.file) +
        ",\"md5\":" + json_text(result.md5) + ",\"code\":" + std::to_string(code) +
        ",\"error\":" + json_text(code_name(code)) +
        ",\"message\":" + json_text(ok ? "" : explain_failure(result)) + "}\n";
    // The body has standard output for itself.
    FILE* stream = item.target.kind == TARGET_STREAM ? stderr : stdout;
    fputs(line.c_str(), stream);
    fflush(stream);
}

// The body or the headers that were asked for. False when standard output does not take them.
static bool print_payload(const transfer& item, const transfer_result& result) {
    const std::string& text = item.target.kind == TARGET_NONE ? result.headers : result.body;
    if (item.args->json || text.empty()) {
        return true;
    }
    if (item.target.kind == TARGET_NONE) {
        printf("HTTP %u %s\r\n", (unsigned)result.status, result.status_text.c_str());
    }
    return fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
}

int report_result(const transfer& item, const transfer_result& result) {
    // Bars that are redrawn would erase what standard output adds to the same terminal.
    stop_progress();
    transfer_result final = result;
    if (!print_payload(item, result)) {
        final.verdict = VERDICT_OUTPUT_CLOSED;
    }
    bool ok = is_success(final);
    if (!ok) {
        print_failure(item, final);
    } else if (!item.args->quiet) {
        print_success(item, final);
    }
    if (item.args->json) {
        print_json(item, final);
    }
    return ok ? EXIT_OK : outcome_exit_code(final);
}
