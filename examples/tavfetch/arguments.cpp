#include "arguments.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>

#include "errors.h"
#include "tavhttpclient/tavhttpclient.h"
#include "values.h"

static const char FOOTER[] =
    R"(Files: without -o a download is named after the last part of its URL; a name that is taken
gets .1, .2 and so on. -o FILE replaces FILE once the transfer is complete; its mode is kept. With
--resume or --range the file is written in place and kept when the transfer breaks off; a range lands
at its own offset in the file. If a resumed server sends the whole file again, it is fetched afresh.

https: the traffic is encrypted, but the server's certificate chain is NOT verified: anyone on the
path can answer with a certificate of their own. --tls-name NAME is the only check. It sends NAME to
the server and requires that the certificate's common name equals NAME, or is a wildcard
("*.example.com") that NAME ends with. The common name is only found when it is not the first entry
of the certificate's subject (O=..., CN=... works, a lone CN=... is refused). Compare a checksum
from a source that you trust (--checksum).

Exit codes:
  0  all transfers succeeded
  1  usage: wrong arguments, URL or proxy
  2  network: name, connection (its time-out included), proxy
  3  TLS: handshake, certificate name
  4  server: status or malformed response
  5  file: cannot be opened, read or written
  6  time-out of a send or receive, or of the whole transfer
  7  cancelled by the library
  8  internal
  9  another checksum than that of --checksum
With several transfers the code is that of the first that failed. Ctrl-C, a termination or a hang-up
ends all transfers at once, and the program with that signal.)";

bool is_post(const arguments& args) {
    return args.has_body || !args.upload.empty() || !args.form_fields.empty() ||
           !args.form_files.empty();
}

static std::string check_combinations(const arguments& args) {
    int targets = !args.output.empty() + args.to_memory + args.auto_file +
                  (args.remote_name || args.content_disposition);
    int bodies = args.has_body + !args.upload.empty() +
                 (!args.form_fields.empty() || !args.form_files.empty());
    if (args.urls.empty()) {
        return "no URL given";
    }
    if (targets > 1) {
        return "-o, -O, --to-memory and --auto-file exclude each other";
    }
    if (bodies > 1) {
        return "--data, --form and --upload exclude each other";
    }
    if (args.head && (bodies > 0 || targets > 0 || args.resume || args.checksum)) {
        return "--head has no body: it takes no data, no target, no --resume and no --checksum";
    }
    if (args.resume && (args.output == "-" || args.to_memory || args.auto_file)) {
        return "--resume needs a file of a known name: use -o FILE or the default";
    }
    if (args.content_disposition && (args.resume || args.range)) {
        return "--content-disposition finds a new name: it goes with neither --resume nor --range";
    }
    if (args.range && (args.resume || args.checksum)) {
        return "--range is a part of the resource: it goes with neither --resume nor --checksum";
    }
    if (args.urls.size() > 1 && !args.output.empty() && args.output != "-") {
        return "-o FILE takes one URL; use --dir for several";
    }
    if (args.urls.size() > 1 && args.checksum) {
        return "--checksum takes one URL";
    }
    return "";
}

// The texts that the parser collects and that need a second look.
struct raw_arguments {
    std::vector<std::string> headers, form, form_files, data;
    std::string input, data_file, log, checksum;
    std::string connect_timeout, io_timeout, session_timeout, retry_delay;
    int parallel = 1;
};

static std::string read_files(const raw_arguments& raw, arguments* args) {
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
            return "--input-file " + raw.input + " cannot be read";
        }
        add_listed_urls(text, &args->urls);
    }
    return "";
}

// The first complaint of the values, or "".
static std::string parse_values(const raw_arguments& raw, arguments* args) {
    const std::string complaints[] = {
        read_files(raw, args),
        parse_duration("--connect-timeout", raw.connect_timeout, &args->connect_timeout),
        parse_duration("--io-timeout", raw.io_timeout, &args->io_timeout),
        parse_duration("--timeout", raw.session_timeout, &args->session_timeout),
        parse_duration("--retry-delay", raw.retry_delay, &args->retry_delay),
        args->range_text.empty() ? "" : parse_range(args->range_text, &args->range),
        args->proxy_text.empty() ? "" : parse_proxy("--proxy", args->proxy_text, &args->proxy),
        raw.checksum.empty() ? "" : parse_checksum(raw.checksum, &args->checksum),
        parse_headers(raw.headers, &args->headers),
        parse_form(raw.form, raw.form_files, args),
    };
    for (const std::string& complaint : complaints) {
        if (!complaint.empty()) {
            return complaint;
        }
    }
    return "";
}

static std::string interpret(const raw_arguments& raw, arguments* args) {
    static const std::map<std::string, uint32_t> priorities = {{"low", TAV_HTTP_PRIORITY_LOW},
                                                               {"normal", TAV_HTTP_PRIORITY_NORMAL},
                                                               {"high", TAV_HTTP_PRIORITY_HIGH}};
    static const std::map<std::string, int32_t> levels = {
        {"", 0}, {"error", 1000}, {"info", 2000}, {"detail", 3000}};
    args->priority = priorities.at(args->priority_name);
    args->log_level = levels.at(raw.log);
    args->parallel = (uint32_t)raw.parallel;
    if (args->output == "/dev/stdout") {
        args->output = "-";
    }
    std::string complaint = parse_values(raw, args);
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

static void add_text(CLI::App* app, const char* name, std::string* value, const char* help,
                     const char* value_name) {
    app->add_option(name, *value, help)->type_name(value_name);
}

// The help describes the values itself.
static CLI::Validator without_description(CLI::Validator validator) {
    return validator.description("");
}

static void declare_targets(CLI::App* app, arguments* args, raw_arguments* raw) {
    add_text(app, "-o,--output", &args->output, "Write to FILE (replaced); - is standard output",
             "FILE");
    app->add_flag("-O,--remote-name", args->remote_name, "Name the file after the URL (default)");
    app->add_flag("-J,--content-disposition", args->content_disposition,
                  "Take the file's name from the server where it gives one");
    app->add_flag("--to-memory", args->to_memory,
                  "Keep the body in memory and print it when it is complete");
    app->add_flag("--auto-file", args->auto_file,
                  "Let the library choose the file, in --dir or the temporary directory");
    add_text(app, "--dir", &args->directory, "Directory for the files; created when missing",
             "DIRECTORY");
    app->add_flag("--resume", args->resume, "Continue the file behind its present end");
    add_text(app, "--range", &args->range_text, "Only these bytes: A-B, A- or the last -N", "A-B");
    add_text(app, "--checksum", &raw->checksum,
             "md5=HEX or sha256=HEX; checked before the file gets its name", "SUM");
    app->add_flag("--remote-time", args->remote_time, "Give the file the server's time");
    app->add_flag("--md5", args->md5, "Print the body's MD5");
}

static void declare_request(CLI::App* app, arguments* args, raw_arguments* raw) {
    add_repeatable(app, "-H,--header", &raw->headers, "Add a request header; repeatable",
                   "'NAME: VALUE'");
    add_text(app, "--cookie", &args->cookie, "Cookies: 'name=value; name=value'", "TEXT");
    app->add_flag("-I,--head", args->head, "Ask for the headers only and print them");
    app->add_flag("--no-redirect", args->no_redirect, "Do not follow redirects");
    add_repeatable(app, "--data", &raw->data, "POST this text; repeated texts are joined", "TEXT");
    add_text(app, "--data-file", &raw->data_file, "POST the contents of FILE, read first; - works",
             "FILE");
    add_text(app, "--upload", &args->upload, "POST FILE, read while it is sent", "FILE");
    add_repeatable(app, "--form", &raw->form, "POST a form with this field; repeatable",
                   "NAME=VALUE");
    add_repeatable(app, "--form-file", &raw->form_files, "Add a file to the form; repeatable",
                   "NAME=PATH[;FILENAME]");
}

static void declare_connection(CLI::App* app, arguments* args, raw_arguments* raw) {
    add_text(app, "--connect-timeout", &raw->connect_timeout, "Name and connect (15s)", "TIME");
    add_text(app, "--io-timeout", &raw->io_timeout, "Each send and receive (30s)", "TIME");
    add_text(app, "--timeout", &raw->session_timeout, "The whole transfer (none)", "TIME");
    app->add_option("--retry", args->retries, "Try again up to N times after a passing failure")
        ->type_name("N")
        ->check(without_description(CLI::Range(0, 1000)));
    add_text(app, "--retry-delay", &raw->retry_delay, "Before each of them (1s, 2s, 4s, ...)",
             "TIME");
    add_text(app, "--proxy", &args->proxy_text, "http:// or socks5:// [user:password@]host:port",
             "PROXY");
    app->add_flag("--no-proxy", args->no_proxy, "Take no proxy from the environment");
    add_text(app, "--tls-name", &args->tls_name,
             "Name to send to the https server and to require of its certificate", "NAME");
}

static void declare_run(CLI::App* app, arguments* args, raw_arguments* raw) {
    add_text(app, "-i,--input-file,--input", &raw->input,
             "Read more URLs from FILE, one a line; - works", "FILE");
    app->add_option("--parallel", raw->parallel, "Transfers at once, 1 to 9 (1)")
        ->type_name("N")
        ->check(without_description(CLI::Range(1, 9)));
    app->add_option("--priority", args->priority_name, "low, normal or high")
        ->type_name("LEVEL")
        ->check(without_description(CLI::IsMember({"low", "normal", "high"})));
    app->add_flag("-q,--quiet", args->quiet, "Print errors only");
    app->add_flag("-v,--verbose", args->verbose, "Print the headers sent and received");
    app->add_option("--log", raw->log, "Print the library's log: error, info or detail")
        ->type_name("LEVEL")
        ->check(without_description(CLI::IsMember({"error", "info", "detail"})));
    app->add_flag("--json", args->json, "Print one JSON line for each finished transfer");
    app->set_version_flag("-V,--version", "tavfetch " TAV_HTTP_VERSION_TEXT, "Print the version");
}

int parse_arguments(const std::vector<std::string>& words, arguments* args) {
    CLI::App app("Fetches and uploads over HTTP and HTTPS.", "tavfetch");
    raw_arguments raw;
    args->program = words.empty() ? "tavfetch" : words[0];
    app.footer(FOOTER);
    app.get_formatter()->column_width(36);
    app.add_option("URL", args->urls, "What to fetch; http:// is added where it is missing");
    declare_targets(&app, args, &raw);
    declare_request(&app, args, &raw);
    declare_connection(&app, args, &raw);
    declare_run(&app, args, &raw);

    std::string complaint;
    // The parser takes the words from the back.
    std::vector<std::string> reversed(words.rbegin(), words.rend());
    if (!reversed.empty()) {
        reversed.pop_back();
    }
    try {
        app.parse(reversed);
        complaint = interpret(raw, args);
    } catch (const CLI::CallForHelp&) {
        std::cout << app.help();
        return EXIT_OK;
    } catch (const CLI::CallForVersion& version) {
        std::cout << version.what() << "\n";
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
