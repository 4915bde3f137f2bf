#include "tests/soak/soak_jobs.h"

#include "tests/support/host.h"

#include <zlib.h>

#include <cstdio>
#include <filesystem>

namespace {

constexpr std::int32_t short_timeout = 200;  // ms, for servers that stall

struct kind_row {
    const char* name;
    int weight;  // how often, in relation to the others
};

constexpr kind_row kinds[kind_count] = {
    {"GET to memory", 10},
    {"GET chunked", 6},
    {"GET gzip", 6},
    {"GET until close", 4},
    {"GET to callback", 6},
    {"GET to file", 8},
    {"GET to chosen file", 4},
    {"GET range", 5},
    {"GET resumed", 4},
    {"HEAD", 3},
    {"OPTIONS", 2},
    {"redirect", 5},
    {"POST bytes", 6},
    {"POST file", 4},
    {"POST form", 4},
    {"https GET", 4},
    {"https POST", 3},
    {"HTTP proxy", 4},
    {"SOCKS5 proxy", 4},
    {"peer GET", 8},
    {"peer to file", 4},
    {"peer range", 3},
    {"peer https", 5},
    {"peer HTTP proxy", 4},
    {"peer SOCKS5 proxy", 4},
    {"cancelled", 8},
    {"closed in flight", 8},
    {"timed out", 2},
    {"misbehaving server", 5},
};

bool is_possible(job_kind kind, const soak_peers& peers) {
    switch (kind) {
    case job_kind::https_get:
    case job_kind::https_post:
        return TAV_HTTP_WITH_TLS != 0;
    case job_kind::peer_get:
    case job_kind::peer_file:
    case job_kind::peer_range:
        return !peers.http.empty();
    case job_kind::peer_https:
        return TAV_HTTP_WITH_TLS != 0 && !peers.https.empty();
    case job_kind::peer_http_proxy:
        return !peers.http.empty() && peers.http_proxy != 0;
    case job_kind::peer_socks_proxy:
        return !peers.http.empty() && peers.socks_proxy != 0;
    default:
        return true;
    }
}

unsigned pick(std::mt19937& random, unsigned below) {
    return static_cast<unsigned>(random() % below);
}

job_kind pick_kind(std::mt19937& random, const soak_peers& peers) {
    int total = 0;
    for (std::size_t i = 0; i < kind_count; i++) {
        total += is_possible(static_cast<job_kind>(i), peers) ? kinds[i].weight : 0;
    }
    int at = static_cast<int>(pick(random, static_cast<unsigned>(total)));
    for (std::size_t i = 0; i < kind_count; i++) {
        if (is_possible(static_cast<job_kind>(i), peers)) {
            at -= kinds[i].weight;
            if (at < 0) {
                return static_cast<job_kind>(i);
            }
        }
    }
    return job_kind::get_memory;
}

// Large bodies now and then.
std::size_t pick_body(std::mt19937& random) {
    std::size_t count = soak_bodies().size();
    return pick(random, 20) == 0 ? count - 1 : pick(random, static_cast<unsigned>(count - 1));
}

std::string path_of(const char* mode, std::size_t index) {
    return "/" + std::string(mode) + "/" + std::to_string(index);
}

// ------------------------------------------------------------------------------------ callbacks

std::string found_code(std::uint32_t code) {
    char text[32];
    std::snprintf(text, sizeof text, "code 0x%x", code);
    return text;
}

void on_job_complete(http_session* session, void* user_data, std::uint32_t code) {
    auto* job = static_cast<soak_job*>(user_data);
    if (session != job->session) {
        job->run->violation(job->kind, "another session's completion");
    }
    job->code = code;
    if (job->closes_inside) {
        check_job(*job);
        job->left_open = tavHTTPClose(session) == 0;
    }
    job->ends++;  // from here on the owner may look at it
    job->owner->job_ended();
}

void on_job_data(http_session*, void* user_data, std::uint64_t offset, const void* data,
                 std::uint32_t length) {
    auto* job = static_cast<soak_job*>(user_data);
    if (offset != job->data_bytes) {
        job->run->violation(job->kind, "a gap before the data at " + std::to_string(offset));
    }
    job->data_crc =
        static_cast<std::uint32_t>(crc32(job->data_crc, static_cast<const Bytef*>(data), length));
    job->data_bytes += length;
}

// ---------------------------------------------------------------------------------- preparation

class job_maker {
  public:
    job_maker(soak_job& job, soak_run& run, soak_servers& servers, std::mt19937& random)
        : job_(job), run_(run), servers_(servers), random_(random) {
    }

    void make() {
        job_.run = &run_;
        job_.number = run_.next_job++;
        job_.kind = pick_kind(random_, run_.peers);
        if (!make_download() && !make_upload() && !make_proxied() && !make_peer()) {
            make_disturbed(job_.kind);
        }
        set_manners();
    }

  private:
    void open(const std::string& url, std::uint32_t method = TAV_HTTP_METHOD_GET,
              const proxy_info* proxy = nullptr) {
        job_.session = tavHTTPOpen(method, url.c_str(), proxy, &job_, on_job_complete);
    }

    template <typename... values> void set(std::uint32_t option, values... given) {
        tavHTTPSetOption(job_.session, option, given...);
    }

    void expect_body(std::size_t index) {
        job_.bytes = &soak_bodies()[index].bytes;
    }

    void to_file() {
        job_.file = run_.directory + "/job" + std::to_string(job_.number) + ".bin";
        set(TAV_HTTP_OPTION_DOWNLOAD_FILE, job_.file.c_str());
    }

    void get_from(const std::string& url, std::size_t index) {
        open(url);
        expect_body(index);
    }

    void set_range(const std::string& url, std::size_t index) {
        get_from(url, index);
        std::size_t size = job_.bytes->size();
        job_.from = 1 + pick(random_, static_cast<unsigned>(size / 2));
        job_.length = 2 + pick(random_, static_cast<unsigned>(size / 2 - 2));
        set(TAV_HTTP_OPTION_RANGE, static_cast<std::int64_t>(job_.from),
            static_cast<std::int64_t>(job_.from + job_.length - 1));
    }

    void resume(std::size_t index) {
        get_from(servers_.url(path_of("plain", index)), index);
        to_file();
        job_.keeps_part = true;
        set(TAV_HTTP_OPTION_RESUME, 1u);
        write_file(job_.file, job_.bytes->substr(0, job_.bytes->size() / 2));
    }

    bool make_download() {
        std::size_t index = pick_body(random_);
        std::size_t large = 2 + pick(random_, static_cast<unsigned>(soak_bodies().size() - 2));
        switch (job_.kind) {
        case job_kind::get_memory:
            get_from(servers_.url(path_of("plain", index)), index);
            return true;
        case job_kind::get_chunked:
            get_from(servers_.url(path_of("chunked", index)), index);
            return true;
        case job_kind::get_zip:
            get_from(servers_.url(path_of("zip", index)), index);
            return true;
        case job_kind::get_until_close:
            get_from(servers_.url(path_of("close", index)), index);
            return true;
        case job_kind::get_data_callback:
            get_from(servers_.url(path_of("chunked", index)), index);
            set(TAV_HTTP_OPTION_DOWNLOAD_DATA_CALLBACK, on_job_data);
            return true;
        case job_kind::get_file:
            get_from(servers_.url(path_of("zip", index)), index);
            to_file();
            return true;
        case job_kind::get_chosen_file:
            get_from(servers_.url(path_of("plain", large)), large);
            set(TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, 1u);
            return true;
        case job_kind::get_range:
            set_range(servers_.url(path_of("plain", large)), large);
            return true;
        case job_kind::get_resumed:
            resume(large);
            return true;
        case job_kind::head:
        case job_kind::options:
            open(servers_.url(path_of("plain", index)),
                 job_.kind == job_kind::head ? TAV_HTTP_METHOD_HEAD : TAV_HTTP_METHOD_OPTIONS);
            expect_body(index);
            job_.no_body = job_.kind == job_kind::head;
            return true;
        case job_kind::redirect:
            get_from(servers_.url(path_of("moved", index)), index);
            return true;
        case job_kind::https_get:
            get_from(servers_.tls_url(path_of("chunked", index)), index);
            return true;
        default:
            return false;
        }
    }

    void add_bytes(std::size_t index) {
        const std::string& bytes = soak_bodies()[index].bytes;
        set(TAV_HTTP_OPTION_APPEND_BODY, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
        job_.receipt = upload_receipt(bytes);
    }

    bool make_upload() {
        std::size_t index = 1 + pick(random_, 7);
        const std::string& bytes = soak_bodies()[index].bytes;
        std::string path = run_.peers.root + peer_path(index);
        switch (job_.kind) {
        case job_kind::post_bytes:
            open(servers_.url("/echo"), TAV_HTTP_METHOD_POST);
            add_bytes(index);
            return true;
        case job_kind::https_post:
            open(servers_.tls_url("/echo"), TAV_HTTP_METHOD_POST);
            add_bytes(index);
            return true;
        case job_kind::post_file:
            open(servers_.url("/echo"), TAV_HTTP_METHOD_POST);
            set(TAV_HTTP_OPTION_UPLOAD_FILE, path.c_str());
            job_.receipt = upload_receipt(bytes);
            return true;
        case job_kind::post_form:
            open(servers_.url(path_of("form", index)), TAV_HTTP_METHOD_POST);
            set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "number", "%d", 7);
            if (pick(random_, 2) == 0) {
                set(TAV_HTTP_OPTION_ADD_FORM_FILE, "file", path.c_str(), "name.bin");
            } else {
                set(TAV_HTTP_OPTION_ADD_FORM_DATA, "data", bytes.data(),
                    static_cast<std::int32_t>(bytes.size()), "name.bin");
            }
            job_.receipt = "found";
            return true;
        default:
            return false;
        }
    }

    void open_through(std::uint32_t type, std::uint16_t port, const std::string& url) {
        char host[] = "127.0.0.1";
        proxy_info proxy = {};
        proxy.type = type;
        proxy.host = host;
        proxy.port = port;
        open(url, TAV_HTTP_METHOD_GET, &proxy);
        // A tunnel is for one exchange: the stand-ins answer once.
        set(TAV_HTTP_OPTION_NO_REUSE, 1u);
        set(TAV_HTTP_OPTION_CONNECTION, 2u);
    }

    bool make_proxied() {
        std::size_t index = pick_body(random_);
        switch (job_.kind) {
        case job_kind::http_proxy:
            open_through(TAV_HTTP_PROXY_HTTP, servers_.http_proxy_port(),
                         soak_servers::proxied_url());
            expect_body(soak_servers::proxied_body());
            return true;
        case job_kind::socks_proxy:
            open_through(TAV_HTTP_PROXY_SOCKS5, servers_.socks_proxy_port(),
                         soak_servers::proxied_url());
            expect_body(soak_servers::proxied_body());
            return true;
        case job_kind::peer_http_proxy:
            open_through(TAV_HTTP_PROXY_HTTP, run_.peers.http_proxy,
                         run_.peers.http + peer_path(index));
            expect_body(index);
            return true;
        case job_kind::peer_socks_proxy:
            open_through(TAV_HTTP_PROXY_SOCKS5, run_.peers.socks_proxy,
                         run_.peers.http + peer_path(index));
            expect_body(index);
            return true;
        default:
            return false;
        }
    }

    bool make_peer() {
        std::size_t index = pick_body(random_);
        std::size_t large = 2 + pick(random_, static_cast<unsigned>(soak_bodies().size() - 2));
        switch (job_.kind) {
        case job_kind::peer_get:
            get_from(run_.peers.http + peer_path(index), index);
            return true;
        case job_kind::peer_file:
            get_from(run_.peers.http + peer_path(index), index);
            to_file();
            return true;
        case job_kind::peer_range:
            set_range(run_.peers.http + peer_path(large), large);
            return true;
        case job_kind::peer_https:
            get_from(run_.peers.https + peer_path(index), index);
            return true;
        default:
            return false;
        }
    }

    void act_soon() {
        job_.act_at = soak_clock::now() + std::chrono::microseconds(pick(random_, 30000));
        job_.may_be_cancelled = true;
    }

    // A session of an ordinary kind for those that are interrupted.
    void make_ordinary() {
        std::size_t index = pick_body(random_);
        switch (pick(random_, 6)) {
        case 0:
            open(servers_.url("/echo"), TAV_HTTP_METHOD_POST);
            add_bytes(1 + pick(random_, 7));
            break;
        case 1:
            get_from(servers_.url(path_of("moved", index)), index);
            to_file();
            break;
        case 2:
            open(servers_.stalling_url());
            to_file();
            set(TAV_HTTP_OPTION_IO_TIMEOUT, short_timeout);
            job_.must_fail = true;
            break;
#if TAV_HTTP_WITH_TLS
        case 3:
            get_from(servers_.tls_url(path_of("plain", index)), index);
            break;
#endif
        default:
            get_from(servers_.url(path_of("chunked", index)), index);
            to_file();
            break;
        }
    }

    void make_disturbed(job_kind kind) {
        if (kind == job_kind::bad_server) {
            const auto& all = servers_.bad();
            const bad_server& bad = all[pick(random_, static_cast<unsigned>(all.size()))];
            open(bad.url, bad.method);
            if (bad.method == TAV_HTTP_METHOD_POST) {
                const std::string& bytes = soak_bodies().back().bytes;
                set(TAV_HTTP_OPTION_APPEND_BODY, bytes.data(),
                    static_cast<std::uint32_t>(bytes.size()));
            } else {
                to_file();
            }
            set(TAV_HTTP_OPTION_IO_TIMEOUT, short_timeout);
            job_.must_fail = true;
        } else if (kind == job_kind::timed_out) {
            open(servers_.stalling_url());
            to_file();
            bool whole = pick(random_, 2) == 0;
            set(whole ? TAV_HTTP_OPTION_SESSION_TIMEOUT : TAV_HTTP_OPTION_IO_TIMEOUT,
                short_timeout);
            job_.must_fail = true;
            job_.failure =
                whole ? TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT : TAV_HTTP_ERROR_CODE_RECV_TIMEOUT;
        } else {
            make_ordinary();
            act_soon();
        }
    }

    void set_manners() {
        const std::int32_t priorities[] = {TAV_HTTP_PRIORITY_LOW, TAV_HTTP_PRIORITY_NORMAL,
                                           TAV_HTTP_PRIORITY_NORMAL, TAV_HTTP_PRIORITY_HIGH};
        set(TAV_HTTP_OPTION_PRIORITY, priorities[pick(random_, 4)]);
        set(TAV_HTTP_OPTION_QUEUE_FIFO, pick(random_, 2));
        set(TAV_HTTP_OPTION_BODY_MD5, 1u);
        // Nobody else may touch one that closes itself.
        job_.closes_inside = job_.act_at == soak_clock::time_point::max() && pick(random_, 3) == 0;
    }

    soak_job& job_;
    soak_run& run_;
    soak_servers& servers_;
    std::mt19937& random_;
};

// --------------------------------------------------------------------------------- what came of it

std::string text_of(http_session* session, std::uint32_t query) {
    const char* text = nullptr;
    tavHTTPQueryInfo(session, query, &text, nullptr, nullptr);
    return text != nullptr ? text : "";
}

std::string memory_body(http_session* session) {
    const char* bytes = nullptr;
    std::int32_t length = 0;
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_MEMORY_BODY, &bytes, &length, nullptr);
    return bytes != nullptr ? std::string(bytes, static_cast<std::size_t>(length)) : "";
}

std::string expected_body(const soak_job& job) {
    if (job.no_body) {
        return "";
    }
    return job.bytes != nullptr ? job.bytes->substr(job.from, job.length) : job.receipt;
}

// What the library says of the body must fit to it too. An empty text: all is well.
std::string check_body(const soak_job& job, const std::string& expected) {
    std::string found;
    if (job.kind == job_kind::get_data_callback) {
        bool same = job.data_bytes == expected.size() &&
                    job.data_crc == crc_of(expected.data(), expected.size());
        return same ? "" : "wrong data in the callbacks";
    }
    if (job.kind == job_kind::get_chosen_file) {
        found = read_file(text_of(job.session, TAV_HTTP_QUERY_FILE_PATH));
    } else {
        found = job.file.empty() ? memory_body(job.session) : read_file(job.file);
    }
    if (crc_of(found.data(), found.size()) != crc_of(expected.data(), expected.size()) ||
        found.size() != expected.size()) {
        return "wrong body, " + std::to_string(found.size()) + " bytes instead of " +
               std::to_string(expected.size());
    }
    unsigned char digest[16] = {};
    tavHTTPQueryInfo(job.session, TAV_HTTP_QUERY_BODY_MD5, digest, nullptr, nullptr);
    std::string text;
    for (unsigned char byte : digest) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", byte);
        text += two;
    }
    return job.keeps_part || text == md5_hex(expected) ? "" : "wrong MD5";
}

// The file of the library's choosing; a part of it may stay behind a failure.
void remove_chosen_file(const soak_job& job) {
    std::string path = text_of(job.session, TAV_HTTP_QUERY_FILE_PATH);
    if (job.kind == job_kind::get_chosen_file && !path.empty()) {
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
    }
}

std::string judge_failure(const soak_job& job, std::uint32_t code) {
    bool stopping = job.run->stopping;
    bool is_cancel = code == TAV_HTTP_ERROR_CODE_CANCEL;
    if (is_cancel && (stopping || job.may_be_cancelled)) {
        return "";
    }
    // What the end of the loop may answer as well.
    if (stopping &&
        (code == TAV_HTTP_ERROR_CODE_FAIL_OTHER || code == TAV_HTTP_ERROR_CODE_NULL_EVENT_LOOP)) {
        return "";
    }
    if (!job.must_fail || (job.failure != 0 && job.failure != code)) {
        return "unexpected " + found_code(code);
    }
    return "";
}

}  // namespace

const char* kind_name(job_kind kind) {
    return kinds[static_cast<std::size_t>(kind)].name;
}

void soak_run::violation(job_kind kind, const std::string& text) {
    totals[static_cast<std::size_t>(kind)].violations++;
    std::lock_guard<std::mutex> guard(mutex_);
    if (printed_++ < 50) {  // enough to see what is wrong
        std::printf("VIOLATION, %s: %s\n", kind_name(kind), text.c_str());
        std::fflush(stdout);
    }
}

void prepare_job(soak_job& job, soak_run& run, soak_servers& servers, std::mt19937& random) {
    job_maker(job, run, servers, random).make();
}

void check_job(soak_job& job) {
    std::uint32_t code = job.code;
    std::string complaint;
    if (code != 0) {
        complaint = judge_failure(job, code);
    } else if (job.must_fail) {
        complaint = "succeeded";
    } else {
        std::string expected = expected_body(job);
        complaint = check_body(job, expected);
        job.run->totals[static_cast<std::size_t>(job.kind)].bytes += expected.size();
    }
    if (!complaint.empty()) {
        job.run->violation(job.kind, complaint + ", " + text_of(job.session, TAV_HTTP_QUERY_URL));
    }
    remove_chosen_file(job);
    check_left_file(job);
}

void check_left_file(const soak_job& job) {
    if (job.file.empty() || !file_exists(job.file)) {
        return;
    }
    std::string found = read_file(job.file);
    std::string whole = job.bytes != nullptr ? *job.bytes : "";
    bool is_part = job.keeps_part && whole.compare(0, found.size(), found) == 0;
    // Cancelled behind its last byte, a download is finished all the same.
    bool is_whole = job.bytes != nullptr && found == whole;
    if (!is_part && !is_whole) {
        job.run->violation(job.kind, "a partial file of " + std::to_string(found.size()) +
                                         " bytes under its name");
    }
    std::error_code ignored;
    std::filesystem::remove(job.file, ignored);
}
