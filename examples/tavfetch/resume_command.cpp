// The command line that goes on with a transfer that broke off.
#include <algorithm>
#include <filesystem>

#include "report.h"
#include "session_options.h"
#include "text.h"
#include "url.h"

namespace fs = std::filesystem;

// The file may lack the bytes that the library had not written out yet: up to two receive buffers.
static const int64_t UNWRITTEN_BYTES = 65536;

static void add_option(std::string* command, const char* name, const std::string& value) {
    if (!value.empty()) {
        *command += std::string(" ") + name + " " + shell_quote(value);
    }
}

static void add_time(std::string* command, const char* name, int32_t milliseconds) {
    if (milliseconds > 0) {
        add_option(command, name, std::to_string(milliseconds) + "ms");
    }
}

// The options that the next attempt needs to make the same request. Passwords are not repeated: the
// line may end up in a log.
static std::string repeat_options(const arguments& args) {
    std::string command;
    for (const text_pair& header : args.headers) {
        add_option(&command, "-H",
                   header.first + ": " + (is_secret_header(header.first) ? "..." : header.second));
    }
    add_option(&command, "--cookie", args.cookie.empty() ? "" : "...");
    std::string proxy = args.proxy_text;
    if (!take_login(&proxy).empty()) {
        proxy.insert(proxy.find("://") == std::string::npos ? 0 : proxy.find("://") + 3, "...@");
    }
    add_option(&command, "--proxy", proxy);
    command += args.no_proxy ? " --no-proxy" : "";
    add_option(&command, "--tls-name", args.tls_name);
    add_time(&command, "--connect-timeout", args.connect_timeout);
    add_time(&command, "--io-timeout", args.io_timeout);
    add_time(&command, "--timeout", args.session_timeout);
    if (args.checksum) {
        add_option(&command, "--checksum", args.checksum->algorithm + "=" + args.checksum->digest);
    }
    if (args.priority_name != "normal") {
        add_option(&command, "--priority", args.priority_name);
    }
    return command;
}

std::string resume_command(const transfer& item, const transfer_result& result) {
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
    std::string url = item.url;
    if (!item.authorization.empty()) {
        url.insert(url.find("://") + 3, "...@");
    }
    return command + repeat_options(args) + " " + shell_quote(url);
}
