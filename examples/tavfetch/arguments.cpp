#include "arguments.h"

#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>

#include "errors.h"
#include "tavhttpclient/tavhttpclient.h"

static const char FOOTER[] =
    R"(Files: without -o a download is named after the last part of its URL; a name that is taken
gets .1, .2 and so on. -o FILE replaces FILE once the transfer is complete. With --resume or --range the
file is written in place and kept when the transfer breaks off; a range lands at its own offset in
the file. If a resumed server sends the whole file again, it is fetched afresh.

https: the traffic is encrypted, but the server's certificate chain is NOT verified: anyone on the
path can answer with a certificate of their own. --tls-name NAME is the only check. It sends NAME to
the server and requires that the certificate's common name equals NAME, or is a wildcard
("*.example.com") that NAME ends with. The common name is only found when it is not the first entry
of the certificate's subject (O=..., CN=... works, a lone CN=... is refused). Compare a checksum
from a source that you trust.

Ctrl-C cancels: each transfer ends when the network step that it waits in ends, at the latest after
that step's time-out. A second Ctrl-C leaves at once, perhaps with a temporary file left over.

Exit codes:
  0  all transfers succeeded
  1  usage: wrong arguments, URL or proxy
  2  network: name, connection (its time-out included), proxy
  3  TLS: handshake, certificate name
  4  server: status or malformed response
  5  file: cannot be opened, read or written
  6  time-out of a send or receive, or of the whole transfer
  7  cancelled
  8  internal
With several transfers the code is that of the first that failed.)";

bool is_post(const arguments& args) {
    return args.has_body || !args.upload.empty() || !args.form_fields.empty() ||
           !args.form_files.empty();
}

static bool parse_number(const std::string& text, int64_t* result) {
    if (text.empty() || text.size() > 18 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    *result = std::stoll(text);
    return true;
}

// "A-B", "A-" and "-N". The library takes (0, 0) as no range and (0, -1) as everything, so the
// first byte alone and the last byte alone cannot be asked for.
static std::string parse_range(const std::string& text, std::optional<byte_range>* result) {
    size_t dash = text.find('-');
    if (dash == std::string::npos) {
        return "--range wants A-B, A- or -N";
    }
    std::string first = text.substr(0, dash);
    std::string last = text.substr(dash + 1);
    byte_range range{0, -1};
    bool ok = (first.empty() || parse_number(first, &range.first)) &&
              (last.empty() || parse_number(last, &range.last)) && text.size() > 1;
    if (!ok || (!first.empty() && !last.empty() && range.last < range.first)) {
        return "--range wants A-B, A- or -N, with A not above B";
    }
    if (first.empty()) {
        if (range.last < 2) {
            return "--range -N needs N of at least 2";
        }
        range.last = -range.last;
    } else if (range.first == 0 && range.last == 0) {
        return "--range 0-0 cannot be asked for; use 0-1";
    }
    *result = range;
    return "";
}

static std::string percent_decode(const std::string& text) {
    std::string result;
    for (size_t i = 0; i < text.size(); i++) {
        unsigned value = 0;
        if (text[i] == '%' && i + 2 < text.size() &&
            sscanf(text.substr(i + 1, 2).c_str(), "%2x", &value) == 1) {
            result += (char)value;
            i += 2;
        } else {
            result += text[i];
        }
    }
    return result;
}

// scheme://[user[:password]@]host:port, an IPv6 host in brackets.
static std::string parse_proxy(const std::string& text, std::optional<proxy_address>* result) {
    proxy_address proxy{};
    size_t start = text.find("://");
    std::string scheme = start == std::string::npos ? "" : text.substr(0, start);
    if (scheme == "http") {
        proxy.type = TAV_HTTP_PROXY_HTTP;
    } else if (scheme == "socks5") {
        proxy.type = TAV_HTTP_PROXY_SOCKS5;
    } else {
        return "--proxy wants http://host:port or socks5://host:port";
    }
    std::string rest = text.substr(start + 3);
    if (!rest.empty() && rest.back() == '/') {
        rest.pop_back();
    }
    size_t at = rest.rfind('@');
    if (at != std::string::npos) {
        std::string login = rest.substr(0, at);
        size_t colon = login.find(':');
        proxy.user_name = percent_decode(login.substr(0, colon));
        if (colon != std::string::npos) {
            proxy.password = percent_decode(login.substr(colon + 1));
        }
        rest.erase(0, at + 1);
    }
    size_t colon = rest.rfind(':');
    int64_t port = 0;
    if (colon == std::string::npos || colon == 0 || !parse_number(rest.substr(colon + 1), &port) ||
        port < 1 || port > 65535) {
        return "--proxy needs a host and a port, as in http://host:3128";
    }
    proxy.host = rest.substr(0, colon);
    if (proxy.host.size() > 2 && proxy.host.front() == '[' && proxy.host.back() == ']') {
        proxy.host = proxy.host.substr(1, proxy.host.size() - 2);
    }
    proxy.port = (uint16_t)port;
    *result = proxy;
    return "";
}

static std::string parse_headers(const std::vector<std::string>& lines,
                                 std::vector<text_pair>* result) {
    for (const std::string& line : lines) {
        size_t colon = line.find(':');
        if (colon == std::string::npos || colon == 0 ||
            line.find_first_of("\r\n") != std::string::npos) {
            return "-H wants 'Name: value', not '" + line + "'";
        }
        size_t value = line.find_first_not_of(" \t", colon + 1);
        std::string name = line.substr(0, colon);
        std::string lower = CLI::detail::to_lower(name);
        // The library writes these itself, from the body and from other options.
        if (lower == "content-length" || lower == "transfer-encoding" || lower == "range" ||
            lower == "accept-encoding") {
            return "-H cannot set " + name + ": the library writes that line itself";
        }
        result->push_back({name, value == std::string::npos ? "" : line.substr(value)});
    }
    return "";
}

static std::string parse_form(const std::vector<std::string>& fields,
                              const std::vector<std::string>& files, arguments* args) {
    for (const std::string& field : fields) {
        size_t equals = field.find('=');
        if (equals == std::string::npos || equals == 0) {
            return "--form wants NAME=VALUE, not '" + field + "'";
        }
        args->form_fields.push_back({field.substr(0, equals), field.substr(equals + 1)});
    }
    for (const std::string& file : files) {
        size_t equals = file.find('=');
        if (equals == std::string::npos || equals == 0 || equals + 1 == file.size()) {
            return "--form-file wants NAME=PATH[;FILENAME], not '" + file + "'";
        }
        std::string path = file.substr(equals + 1);
        size_t semicolon = path.rfind(';');
        std::string announced;
        if (semicolon != std::string::npos) {
            announced = path.substr(semicolon + 1);
            path.erase(semicolon);
        }
        args->form_files.push_back({file.substr(0, equals), path, announced});
    }
    return "";
}

// "-" is standard input.
static bool read_whole(const std::string& path, std::string* result) {
    if (path == "-") {
        result->append(std::istreambuf_iterator<char>(std::cin), {});
        return true;
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return false;
    }
    result->append(std::istreambuf_iterator<char>(file), {});
    return !file.bad();
}

// One URL a line; empty lines and lines that begin with # are skipped.
static void add_listed_urls(const std::string& text, std::vector<std::string>* urls) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        line = CLI::detail::trim_copy(line);
        if (!line.empty() && line[0] != '#') {
            urls->push_back(line);
        }
    }
}

static std::string check_combinations(const arguments& args) {
    int targets = !args.output.empty() + args.to_memory + args.auto_file;
    int bodies = args.has_body + !args.upload.empty() +
                 (!args.form_fields.empty() || !args.form_files.empty());
    if (args.urls.empty()) {
        return "no URL given";
    }
    if (targets > 1) {
        return "-o, --to-memory and --auto-file exclude each other";
    }
    if (bodies > 1) {
        return "--data, --form and --upload exclude each other";
    }
    if (args.head && (bodies > 0 || targets > 0 || args.resume)) {
        return "--head has no body: it takes no data, no target and no --resume";
    }
    if (args.resume && (args.output == "-" || args.to_memory || args.auto_file)) {
        return "--resume needs a file of a known name: use -o FILE or the default";
    }
    if (args.resume && args.range) {
        return "--resume and --range exclude each other: a resumed transfer runs to the end";
    }
    if (args.urls.size() > 1 && !args.output.empty() && args.output != "-") {
        return "-o FILE takes one URL; use --dir for several";
    }
    return "";
}

// The texts that the parser collects and that need a second look.
struct raw_arguments {
    std::vector<std::string> headers, form, form_files, data;
    std::string input, data_file, log;
    int parallel = 1;
};

static std::string interpret(const raw_arguments& raw, arguments* args) {
    static const std::map<std::string, uint32_t> priorities = {{"low", TAV_HTTP_PRIORITY_LOW},
                                                               {"normal", TAV_HTTP_PRIORITY_NORMAL},
                                                               {"high", TAV_HTTP_PRIORITY_HIGH}};
    static const std::map<std::string, int32_t> levels = {
        {"", 0}, {"error", 1000}, {"info", 2000}, {"detail", 3000}};
    args->priority = priorities.at(args->priority_name);
    args->log_level = levels.at(raw.log);
    args->parallel = (uint32_t)raw.parallel;
    for (const std::string& text : raw.data) {
        args->has_body = true;
        args->body += text;
    }
    if (!raw.data_file.empty()) {
        args->has_body = true;
        if (!read_whole(raw.data_file, &args->body)) {
            return "--data-file " + raw.data_file + " cannot be read";
        }
    }
    if (!raw.input.empty()) {
        std::string text;
        if (!read_whole(raw.input, &text)) {
            return "--input " + raw.input + " cannot be read";
        }
        add_listed_urls(text, &args->urls);
    }
    std::string complaint;
    if (!args->range_text.empty()) {
        complaint = parse_range(args->range_text, &args->range);
    }
    if (complaint.empty() && !args->proxy_text.empty()) {
        complaint = parse_proxy(args->proxy_text, &args->proxy);
    }
    if (complaint.empty()) {
        complaint = parse_headers(raw.headers, &args->headers);
    }
    if (complaint.empty()) {
        complaint = parse_form(raw.form, raw.form_files, args);
    }
    return complaint.empty() ? check_combinations(*args) : complaint;
}

// An option that takes one value a time and may be repeated; the URLs behind it stay URLs.
static void add_repeatable(CLI::App* app, const char* name, std::vector<std::string>* values,
                           const char* help, const char* value_name) {
    app->add_option(name, *values, help)
        ->type_name(value_name)
        ->expected(1)
        ->take_all()
        ->allow_extra_args(false);
}

// The help describes the values itself.
static CLI::Validator without_description(CLI::Validator validator) {
    return validator.description("");
}

static void declare_targets(CLI::App* app, arguments* args) {
    app->add_option("-o,--output", args->output, "Write to FILE (replaced); - is standard output")
        ->type_name("FILE");
    app->add_flag("--to-memory", args->to_memory,
                  "Keep the body in memory and print it when it is complete");
    app->add_flag("--auto-file", args->auto_file,
                  "Let the library choose the file, in --dir or the temporary directory");
    app->add_option("--dir", args->directory, "Directory for the files; created when missing")
        ->type_name("DIRECTORY");
    app->add_flag("--resume", args->resume, "Continue the file behind its present end");
    app->add_option("--range", args->range_text, "Only these bytes: A-B, A- or the last -N")
        ->type_name("A-B");
}

static void declare_request(CLI::App* app, arguments* args, raw_arguments* raw) {
    CLI::Validator milliseconds = without_description(CLI::Range(1, INT32_MAX));
    add_repeatable(app, "-H,--header", &raw->headers, "Add a request header; repeatable",
                   "'NAME: VALUE'");
    app->add_option("--cookie", args->cookie, "Cookies: 'name=value; name=value'");
    app->add_flag("--head", args->head, "Ask for the headers only and print them");
    app->add_flag("--no-redirect", args->no_redirect, "Do not follow redirects");
    app->add_option("--connect-timeout", args->connect_timeout, "Name and connect (15000)")
        ->type_name("MS")
        ->check(milliseconds);
    app->add_option("--io-timeout", args->io_timeout, "Each send and receive (30000)")
        ->type_name("MS")
        ->check(milliseconds);
    app->add_option("--timeout", args->session_timeout, "The whole transfer (none)")
        ->type_name("MS")
        ->check(milliseconds);
    app->add_option("--proxy", args->proxy_text, "http:// or socks5:// [user:password@]host:port")
        ->type_name("PROXY");
    app->add_option("--tls-name", args->tls_name,
                    "Name to send to the https server and to require of its certificate")
        ->type_name("NAME");
    add_repeatable(app, "--data", &raw->data, "POST this text; repeated texts are joined", "TEXT");
    app->add_option("--data-file", raw->data_file, "POST the contents of FILE, read first; - works")
        ->type_name("FILE");
    app->add_option("--upload", args->upload, "POST FILE, read while it is sent")
        ->type_name("FILE");
    add_repeatable(app, "--form", &raw->form, "POST a form with this field; repeatable",
                   "NAME=VALUE");
    add_repeatable(app, "--form-file", &raw->form_files, "Add a file to the form; repeatable",
                   "NAME=PATH[;FILENAME]");
}

static void declare_run(CLI::App* app, arguments* args, raw_arguments* raw) {
    app->add_option("--priority", args->priority_name, "low, normal or high")
        ->type_name("LEVEL")
        ->check(without_description(CLI::IsMember({"low", "normal", "high"})));
    app->add_option("--parallel", raw->parallel, "Transfers at once, 1 to 9 (1)")
        ->type_name("N")
        ->check(without_description(CLI::Range(1, 9)));
    app->add_flag("--md5", args->md5, "Print the body's MD5");
    app->add_option("--log", raw->log, "Print the library's log: error, info or detail")
        ->type_name("LEVEL")
        ->check(without_description(CLI::IsMember({"error", "info", "detail"})));
    app->add_option("--input", raw->input, "Read more URLs from FILE, one a line; - works")
        ->type_name("FILE");
    app->add_flag("--quiet", args->quiet, "Print errors only");
    app->add_flag("--json", args->json, "Print one JSON line for each finished transfer");
}

int parse_arguments(int argc, char** argv, arguments* args) {
    CLI::App app("Fetches and uploads over HTTP and HTTPS.", "tavfetch");
    raw_arguments raw;
    args->program = argc > 0 ? argv[0] : "tavfetch";
    app.footer(FOOTER);
    app.get_formatter()->column_width(36);
    app.add_option("URL", args->urls, "What to fetch: http:// or https://");
    declare_targets(&app, args);
    declare_request(&app, args, &raw);
    declare_run(&app, args, &raw);

    std::string complaint;
    try {
        app.parse(argc, argv);
        complaint = interpret(raw, args);
    } catch (const CLI::CallForHelp&) {
        std::cout << app.help();
        return EXIT_OK;
    } catch (const CLI::ParseError& error) {
        complaint = error.what();
    }
    if (complaint.empty()) {
        return -1;
    }
    std::cerr << "tavfetch: " << complaint << " (see tavfetch --help)\n";
    return EXIT_USAGE;
}
