#include "support/transfers.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <filesystem>

bool is_tls(way through) {
    return through == way::tls12 || through == way::tls13 || through == way::http_proxy_tls ||
           through == way::socks5_tls;
}

static std::uint32_t proxy_type(way through) {
    switch (through) {
    case way::http_proxy:
    case way::http_proxy_tls:
    case way::by_default:
        return TAV_HTTP_PROXY_HTTP;
    case way::socks5:
    case way::socks5_tls:
        return TAV_HTTP_PROXY_SOCKS5;
    default:
        return TAV_HTTP_PROXY_NONE;
    }
}

bool is_proxied(way through) {
    return proxy_type(through) != TAV_HTTP_PROXY_NONE;
}

script open_way(way through) {
    script steps;
    if (proxy_type(through) == TAV_HTTP_PROXY_HTTP) {
        steps = {[](wire& w) {
            received_request asked;
            return w.read_request(&asked) && asked.method == "CONNECT" &&
                   asked.target == "target.test:8080" &&
                   asked.header("Proxy-Authorization") == "Basic dXNlcjpzZWNyZXQ=" &&
                   w.write_whole("HTTP/1.1 200 Established\r\n\r\n");
        }};
    } else if (is_proxied(through)) {
        steps = {[](wire& w) {
            std::string greeting, login, asked;
            return w.read(3, &greeting) && greeting == bytes_of("\5\1\2") &&
                   w.write_whole("\5\2") && w.read(13, &login) && login == "\1\4user\6secret" &&
                   w.write_whole(bytes_of("\1\0")) && w.read(18, &asked) &&
                   asked == bytes_of("\5\1\0\3\13target.test\x1f\x90") &&
                   w.write_whole(bytes_of("\5\0\0\1\x7f\0\0\1\0\x50"));
        }};
    }
    return is_tls(through) ? steps + script{tls()} : steps;
}

peer_options options_of(way through) {
    peer_options options;
    bool old = through == way::tls12 || through == way::socks5_tls;
    options.tls_version = old ? TLS1_2_VERSION : TLS1_3_VERSION;
    return options;
}

// ----------------------------------------------------------------------------------- the table

namespace {

const std::string ok = "HTTP/1.1 200 OK\r\n";
const std::string chunked = "Transfer-Encoding: chunked\r\n";
const std::string keep = "Connection: Keep-Alive\r\n";

std::string moved(int status, const std::string& location, const std::string& body = "moved") {
    return response(status, body, "Location: " + location + "\r\n");
}

std::vector<script> answers(const std::vector<std::string>& all) {
    std::vector<script> scripts;
    for (const std::string& one : all) {
        scripts.push_back(reply_with(one));
    }
    return scripts;
}

std::vector<script> reply_and_reset(const std::string& bytes) {
    return {reply_with(bytes) + script{reset()}};
}

// Without its Range a resumed download is another one, which the server refuses.
script reply_to_range(const std::string& range, const std::string& bytes) {
    const step ranged = [range](wire& w) {
        return w.owner.requests().back().header("Range") == "bytes=" + range;
    };
    return {expect_request(), ranged, send_text(bytes)};
}

// Part of a multipart form, with the announced file name and the bytes.
std::string form_file(const std::string& name, const std::string& announced,
                      const std::string& bytes) {
    return "--@\r\nContent-Disposition: form-data; name=\"" + name + "\"; filename=\"" + announced +
           "\"\r\nContent-Type: application/octet-stream\r\n"
           "Content-Transfer-Encoding: binary\r\n\r\n" +
           bytes + "\r\n";
}

template <typename... values> transfer::action with(std::uint32_t option, values... given) {
    return [=](transfer& one) { one.set(option, given...); };
}

void set_text_options(transfer& one) {
    one.set(TAV_HTTP_OPTION_ADD_HEADER, "X-Own", "value %d", 7);
    one.set(TAV_HTTP_OPTION_COOKIE, "a=1; b=2");
    one.set(TAV_HTTP_OPTION_USER_AGENT, "agent");
    one.set(TAV_HTTP_OPTION_ACCEPT, "text/plain");
    one.set(TAV_HTTP_OPTION_CACHE_CONTROL, "max-age=0");
    one.set(TAV_HTTP_OPTION_HOST, "named.test");
    one.set(TAV_HTTP_OPTION_IF_NONE_MATCH, "\"tag\"");
    one.set(TAV_HTTP_OPTION_IF_MODIFIED_SINCE, std::int64_t{784111777});
    one.set(TAV_HTTP_OPTION_CONNECTION, 2u);
}

void set_multipart(transfer& one) {
    one.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "field", "%s", "value");
    one.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "file", "./upload.bin", nullptr);
    one.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "none", "", "unnamed");
    one.set(TAV_HTTP_OPTION_ADD_FORM_DATA, "data", "a\0b", 3, "d.bin");
}

using row = transfer_row;

std::vector<row> make_downloads() {
    const std::string big = sample_bytes(150000), text(200000, 'g'), plain = "the body";
    const std::string gzip = "Content-Encoding: gzip\r\n";
    const std::string deflate = "Content-Encoding: deflate\r\n";
    std::string damaged = gzip_bytes(sample_bytes(5000));
    damaged[damaged.size() - 6] ^= 0x55;  // in the checksum
    damaged = response(200, damaged, gzip);
    const std::string cut = response(200, big).substr(0, 120000);
    return {
        row("head in full", response(200, plain, "ETag: \"e\"\r\nContent-Type: a/b\r\n"), plain,
            {.head = "GET /dir/name.ext?q=1 HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: */*\r\n"
                     "User-Agent: Mozilla/4.0 (compatible; MSIE 6.0; Windows NT 5.1)\r\n"
                     "Connection: Keep-Alive\r\nCache-Control: no-cache\r\n"
                     "Accept-Encoding: gzip, deflate\r\n\r\n"}),
        row("options of the head",
            response(200, plain,
                     "Date: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
                     "Last-Modified: Sun, 06-Nov-1994 08:49:37\r\n"),
            plain,
            {.set = set_text_options,
             .head = "Host: named.test\r\nAccept: text/plain\r\nUser-Agent: agent\r\n"
                     "Connection: Close\r\nCache-Control: max-age=0\r\n"
                     "Accept-Encoding: gzip, deflate\r\n"
                     "If-Modified-Since: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
                     "If-None-Match: \"tag\"\r\nCookie: a=1; b=2\r\nX-Own: value 7\r\n\r\n"}),
        row("empty", response(200, ""), ""),
        row("chunks and a trailer",
            ok + chunked + "\r\n3;x=1\r\nabc\r\n2\r\nde\r\n0\r\nX-Sum: 1\r\n\r\n", "abcde"),
        row("many chunks", chunked_response(206, big, 5000), big),
        row("until the close", {reply_and_close(ok + "\r\n" + big)}, big),
        row("version 1.0", {reply_and_close("HTTP/1.0 200\r\n\r\nold")}, "old"),
        row("gzip", response(200, gzip_bytes(text), gzip), text),
        row("gzip, small, garbage behind it", response(200, gzip_bytes(plain) + "garbage", gzip),
            plain, {.whole_only = true}),
        row("deflate of zlib", response(200, deflate_bytes(big), "Content-Encoding: DEFLATE\r\n"),
            big),
        row("raw deflate", response(200, raw_deflate_bytes(text), deflate), text),
        row("unknown encoding", response(200, plain, "Content-Encoding: x-gzip\r\n"), plain),
        row("damaged gzip", damaged, "", {.code = "FAIL_PARSE_RESPONSE", .whole_only = true}),
        row("damaged gzip, kept", damaged, damaged.substr(damaged.find("\r\n\r\n") + 4),
            {.set = with(TAV_HTTP_OPTION_KEEP_UNDECODED_BODY, 1u, 0u), .whole_only = true}),
        row("error status", response(404, "gone"), "gone", {.code = "SVR_RETURN_ERROR"}),
        row("not modified", "HTTP/1.1 304 Same\r\n" + keep + "\r\n", "", {.code = "NOT_MODIFIED"}),
        row("cut short", {reply_and_close(cut)}, "", {.code = "FAIL_RECV", .connections = 2}),
        row("reset in the body", reply_and_reset(cut), "", {.code = "FAIL_RECV"}),
        row("cut short once", {reply_and_close(cut), reply_with(response(200, big))}, big),
        row("bad chunk", ok + chunked + "\r\n5\r\nhello\r\nxyz\r\n", "",
            {.code = "FAIL_PARSE_RESPONSE"}),
        row("HEAD", ok + "Content-Length: 9\r\n\r\n", "",
            {.method = TAV_HTTP_METHOD_HEAD, .head = "HEAD /dir/name.ext?q=1 HTTP/1.1\r\n"}),
        row("OPTIONS", response(200, "said"), "said",
            {.method = TAV_HTTP_METHOD_OPTIONS, .head = "OPTIONS /dir/name.ext?q=1 HTTP/1.1\r\n"}),
    };
}

// Those with a file from the start, or in which a part stays.
std::vector<row> make_files() {
    const std::string bytes = sample_bytes(100000), part = bytes.substr(0, 40000);
    const std::string rest = response(206, bytes.substr(40000));
    const std::string identity = "Accept-Encoding: identity\r\nRange: bytes=";
    const transfer::action resume = with(TAV_HTTP_OPTION_RESUME, 1u);
    const step unranged = answer_all([](const received_request& request) {
        return request.has_header("Range") ? response(416, "no") : response(200, "whole");
    });
    return {
        row("over an old file", response(200, bytes), bytes, {.before = "old"}),
        row("over an old file, cut short", reply_and_reset(rest.substr(0, 50000)), "",
            {.code = "FAIL_RECV", .before = "old"}),
        row("resumed", {reply_to_range("40000-", rest)}, bytes.substr(40000),
            {.set = resume, .head = identity + "40000-\r\n", .before = part, .after = bytes}),
        row("resumed, cut short",
            {reply_to_range("40000-", rest.substr(0, 50000)) + script{reset()}}, "",
            {.code = "FAIL_RECV", .set = resume, .before = part, .after = bytes}),
        row("resumed from nothing, cut short",
            reply_and_reset(response(200, bytes).substr(0, 50000)), "",
            {.code = "FAIL_RECV", .set = resume, .after = bytes}),
        row("resumed where it broke",
            {reply_to_range("40000-", rest.substr(0, rest.size() - 30000)) + script{half_close()},
             reply_to_range("70000-", response(206, bytes.substr(70000)))},
            bytes.substr(70000),
            {.set = resume, .head = "Range: bytes=70000-\r\n", .before = part, .after = bytes}),
        row("finished already", {script{unranged}}, "whole",
            {.set = resume, .before = "too long already", .after = "whole", .connections = 2}),
        row("range in place", {reply_to_range("3-7", response(206, "BYTES"))}, "BYTES",
            {.set = with(TAV_HTTP_OPTION_RANGE, std::int64_t{3}, std::int64_t{7}),
             .head = identity + "3-7\r\n",
             .before = "0123456789",
             .after = "012BYTES89"}),
    };
}

std::vector<row> make_uploads() {
    const std::string bytes = sample_bytes(40000), said = response(200, "complete");
    const std::string field = "--@\r\nContent-Disposition: form-data; name=\"field\"\r\n\r\n";
    const std::uint32_t post = TAV_HTTP_METHOD_POST;
    return {
        row("POST bytes", said, "complete",
            {.method = post,
             .set = [bytes](transfer& one) { one.set_body(bytes); },
             .head = "Content-Type: application/octet-stream\r\nContent-Length: 40000\r\n",
             .upload = bytes}),
        row("POST a file, after a redirect", answers({moved(307, "/to"), said}), "complete",
            {.method = post,
             .set = with(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin"),
             .head = "POST /to HTTP/1.1\r\n",
             .upload = bytes}),
        row("POST a form", said, "complete",
            {.method = post,
             .set =
                 [](transfer& one) {
                     one.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "a b", "%s&%d", "x=y", 7);
                     one.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "b", "x");
                 },
             .head = "Content-Type: application/x-www-form-urlencoded; charset=UTF-8\r\n",
             .upload = "a%20b=x%3Dy%267&b=x"}),
        row("POST a multipart form", said, "complete",
            {.method = post,
             .set = set_multipart,
             .head = "Content-Type: multipart/form-data; boundary=tav",
             .upload = field + "value\r\n" + form_file("file", "upload.bin", bytes) +
                       form_file("none", "unnamed", "") +
                       form_file("data", "d.bin", bytes_of("a\0b")) + "--@--\r\n"}),
    };
}

std::vector<row> make_connections() {
    const std::string through = response(200, "through", keep), x = response(200, "x");
    const script twice = reply_with(through) + reply_with(through);
    const transfer::action kept = [](transfer& one) { one.keep_alive(); };
    std::vector<row> rows = {
        row("redirect",
            answers({moved(302, "../to?x", std::string(50000, 'r')), response(200, "to")}), "to",
            {.head = "GET /to?x HTTP/1.1\r\n"}),
        row("no redirect", moved(302, "/to", ""), "",
            {.set = with(TAV_HTTP_OPTION_NO_REDIRECT, 1u)}),
        row("redirects for ever", moved(301, "/again"), "",
            {.code = "TOO_MANY_REDIRECT", .connections = 12}),
        row("kept connection", {twice}, "through", {.sessions = 2}),
        row("cookies", response(200, "x", "Set-Cookie: c=1; path=/\r\n"), "x",
            {.head = "Cookie: c=1;\r\n", .sessions = 2, .connections = 2}),
        row("kept connection that the server ended", {reply_and_close(x)}, "x",
            {.set = kept, .sessions = 2, .connections = 2}),
        row("kept connection that breaks",
            {reply_with(x) + script{expect_request(), reset()}, reply_with(x)}, "x",
            {.set = kept, .sessions = 2}),
    };
    for (way by : {way::http_proxy, way::socks5, way::by_default, way::tls12, way::tls13,
                   way::http_proxy_tls, way::socks5_tls}) {
        if (TAV_HTTP_WITH_TLS != 0 || !is_tls(by)) {
            rows.push_back(
                row("way " + std::to_string(static_cast<int>(by)), {twice}, "through",
                    {.through = by, .head = "GET /dir/name.ext?q=1 HTTP/1.1\r\n", .sessions = 2}));
        }
    }
    if (TAV_HTTP_WITH_TLS != 0) {
        rows.push_back(row("certificate of another name", std::vector<script>{{}}, "",
                           {.code = "0x4000a",
                            .set = with(TAV_HTTP_OPTION_TLS_HOST_NAME, "other.test"),
                            .through = way::tls13}));
        rows.push_back(row(
            "certificate of the name", chunked_response(200, sample_bytes(90000), 7000),
            sample_bytes(90000),
            {.set = with(TAV_HTTP_OPTION_TLS_HOST_NAME, "Server.Test"), .through = way::tls12}));
    }
    return rows;
}

}  // namespace

const std::vector<transfer_row>& transfer_rows() {
    static const std::vector<transfer_row> rows = [] {
        std::vector<transfer_row> all;
        for (const auto& part :
             {make_downloads(), make_files(), make_uploads(), make_connections()}) {
            all.insert(all.end(), part.begin(), part.end());
        }
        return all;
    }();
    return rows;
}

// -------------------------------------------------------------------------------------- one run

static std::vector<script> behind_the_way(const transfer_row& row) {
    std::vector<script> scripts;
    for (const script& one : row.serve) {
        scripts.push_back(open_way(row.through) + one);
    }
    return scripts;
}

static peer_options options_of(const transfer_row& row, std::size_t piece) {
    peer_options options = options_of(row.through);
    options.piece = piece;
    return options;
}

row_run::row_run(const transfer_row& of, target where, std::size_t piece, const std::string& file)
    : row(of), server(behind_the_way(of), options_of(of, piece)), where_(where), file_(file) {
    if (!row.before.empty()) {
        write_file(file_, row.before);
    }
    if (!row.upload.empty() && !std::filesystem::exists("upload.bin")) {
        write_file("upload.bin", sample_bytes(40000));
    }
}

std::unique_ptr<transfer> row_run::open() {
    opened++;
    proxy through(proxy_type(row.through), server.port(), "user", "secret");
    std::string authority =
        is_proxied(row.through) ? "target.test:8080" : "127.0.0.1:" + std::to_string(server.port());
    bool by_default = row.through == way::by_default;
    std::uint32_t refused = by_default ? tavHTTPSetDefaultProxy(&through) : 0;
    auto one = std::make_unique<transfer>(
        (is_tls(row.through) ? "https://" : "http://") + authority + "/dir/name.ext?q=1#f",
        row.method, is_proxied(row.through) && !by_default ? &through : nullptr);
    one->refused = one->handle() == nullptr ? 1 : refused;
    one->set(TAV_HTTP_OPTION_BODY_MD5, 1u);
    if (where_ == target::file) {
        one->set(TAV_HTTP_OPTION_DOWNLOAD_FILE, file_.c_str());
    } else if (where_ == target::chosen_file) {
        one->set(TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, 1u);
    } else if (where_ == target::data) {
        one->record_data();
    }
    row.set(*one);
    return one;
}

std::string row_run::judge_body(const transfer& one) const {
    std::string found = one.body();
    if (row.code == "OK" && row.method != TAV_HTTP_METHOD_HEAD && where_ == target::data) {
        found = one.data();  // of a second attempt too
        found.erase(0, found.size() - std::min(found.size(), row.body.size()));
    } else if (row.code == "OK" && where_ != target::memory) {
        std::string path = one.text(TAV_HTTP_QUERY_FILE_PATH);
        found = path.empty() ? "" : read_file(path);
    }
    const std::string& expected = found == one.body() || row.after.empty() ? row.body : row.after;
    if (found != expected) {
        return "wrong body, " + std::to_string(found.size()) + " bytes";
    }
    if (row.code == "OK" && one.md5() != md5_hex(row.body)) {
        return "wrong MD5";
    }
    auto size = static_cast<std::size_t>(one.number(TAV_HTTP_QUERY_BODY_BYTES));
    return size == row.body.size() ? "" : "wrong size, " + std::to_string(size);
}

std::string row_run::judge_request(bool disturbed) const {
    received_request last = server.request(server.request_count() - 1);
    if (!disturbed && opened == row.sessions && last.raw.find(row.head) == std::string::npos) {
        return "the request is\n" + last.raw;
    }
    std::string type = last.header("Content-Type"), sent = row.upload;
    std::size_t boundary = type.find("boundary=");
    for (std::size_t at = 0;
         boundary != std::string::npos && (at = sent.find("--@", at)) != std::string::npos;) {
        sent.replace(at + 2, 1, type.substr(boundary + 9));
    }
    return last.body == sent ? "" : "the server received\n" + last.body.substr(0, 2000);
}

// No part of a body has the final name, and what was there before stays or gives way.
std::string row_run::judge_file(const std::string& code) const {
    if (where_ != target::file) {
        return "";
    }
    std::string found = read_file(file_), old = row.before.empty() ? "(none)" : row.before;
    const std::string& whole = row.after.empty() ? row.body : row.after;
    bool begins_so = whole.compare(0, row.before.size(), row.before) == 0;
    bool is_part = !row.after.empty() && (found.size() >= row.before.size() || !begins_so) &&
                   (whole.compare(0, found.size(), found) == 0 || found == "(none)");
    bool gave_way = found == "(none)" && code != row.code;
    bool is_whole = found == whole && code != row.code;  // ended behind its last byte
    return found == old || is_part || gave_way || is_whole
               ? ""
               : "a file of " + std::to_string(found.size()) + " bytes was left";
}

std::string row_run::judge(const transfer& one, const std::string& code, bool disturbed) const {
    if (code != row.code && !disturbed) {
        return "completed with " + code;
    }
    if (code != "OK") {
        std::string text = judge_file(code);
        bool has_body = code == row.code && !row.body.empty() && where_ != target::chosen_file;
        return has_body && text.empty() ? judge_body(one) : text;
    }
    if (code != row.code) {
        return "succeeded";
    }
    std::string text = judge_body(one);
    return text.empty() ? judge_request(disturbed) : text;
}
