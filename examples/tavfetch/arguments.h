// The command line of tavfetch as a record.
#ifndef EXAMPLES_TAVFETCH_ARGUMENTS_H
#define EXAMPLES_TAVFETCH_ARGUMENTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "checksum.h"
#include "proxy.h"

typedef std::pair<std::string, std::string> text_pair;

struct byte_range {
    int64_t first;
    int64_t last;  // -1: to the end; below -1 with first 0: the last -n bytes
};

struct form_file {
    std::string name;
    std::string path;
    std::string announced;  // empty: the last component of the path
};

struct arguments {
    std::string program;
    std::vector<std::string> urls;

    // Where bodies go; at most one of these. None: a file named after the URL.
    std::string output;  // "-" is standard output
    bool to_memory = false;
    bool auto_file = false;
    bool remote_name = false;  // the default, written out
    bool content_disposition = false;
    std::string directory;

    // What becomes of the file.
    bool resume = false;
    bool remote_time = false;
    bool md5 = false;
    std::optional<expected_checksum> checksum;

    // The request.
    bool head = false;
    bool no_redirect = false;
    std::string range_text;
    std::optional<byte_range> range;
    std::vector<text_pair> headers;
    std::string cookie;
    std::string tls_name;
    std::string proxy_text;
    std::optional<proxy_address> proxy;
    bool no_proxy = false;
    uint32_t priority;  // TAV_HTTP_PRIORITY_
    std::string priority_name = "normal";

    // Milliseconds; 0 leaves the library's default.
    int32_t connect_timeout = 0;
    int32_t io_timeout = 0;
    int32_t session_timeout = 0;

    // Attempts after the first, and the milliseconds before each; 0: growing.
    int retries = 0;
    int32_t retry_delay = 0;

    // What is sent; each makes the request a POST.
    bool has_body = false;
    std::string body;
    std::string upload;
    std::vector<text_pair> form_fields;
    std::vector<form_file> form_files;

    // The run.
    uint32_t parallel = 1;
    int32_t log_level = 0;  // 0: no log, else 1000, 2000 or 3000
    bool quiet = false;
    bool verbose = false;
    bool json = false;
};

// Reads the command line into `result`, and the files that it names (--input-file, --data-file).
//
// Returns -1 to go on; otherwise the exit code, with the help or the complaint printed.
int parse_arguments(const std::vector<std::string>& words, arguments* result);

// True when the request carries a body or form and so is a POST.
bool is_post(const arguments& args);

#endif
