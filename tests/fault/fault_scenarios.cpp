#include "tests/fault/fault_scenarios.h"

#include "tavhttpclient/settings.h"
#include "tests/support/host.h"
#include "tests/support/scripted_server.h"

#if TAV_HTTP_WITH_TLS
#include "tests/support/tls_server.h"
#endif

#include <unistd.h>

#include <cstring>
#include <future>

namespace {

using body_function = std::function<void(fault_run&)>;

std::shared_ptr<scripted_server> serve(request_handler handler) {
    return std::make_shared<scripted_server>(std::move(handler));
}

std::shared_ptr<scripted_server> serve(script every_connection) {
    return std::make_shared<scripted_server>(std::move(every_connection));
}

proxy_info make_proxy(std::uint32_t type, std::uint16_t port) {
    static char host[] = "127.0.0.1";
    static char user[] = "user";
    static char password[] = "secret";
    proxy_info proxy = {};
    proxy.type = type;
    proxy.host = host;
    proxy.port = port;
    proxy.user_name = user;
    proxy.password = password;
    return proxy;
}

// ------------------------------------------------------------------------------------- downloads

body_function memory() {
    auto server = serve([](const received_request& request) {
        bool complete = request.header("X-Own") == "value 7" &&
                        request.header("Cookie").find("a=1") != std::string::npos &&
                        request.header("User-Agent") == "agent" &&
                        request.header("Accept") == "text/plain" &&
                        request.header("If-None-Match") == "\"tag\"";
        return response(complete ? 200 : 400, "the body",
                        "X-Test: there\r\nSet-Cookie: s=1; path=/\r\nETag: \"e\"\r\n"
                        "Content-Type: text/plain\r\n");
    });
    return [server](fault_run& run) {
        attempt* one = run.open(server->url("/path?query"));
        if (one == nullptr || !run.set(one, TAV_HTTP_OPTION_ADD_HEADER, "X-Own", "value %d", 7) ||
            !run.set(one, TAV_HTTP_OPTION_COOKIE, "a=1; b=2") ||
            !run.set(one, TAV_HTTP_OPTION_USER_AGENT, "agent") ||
            !run.set(one, TAV_HTTP_OPTION_ACCEPT, "text/plain") ||
            !run.set(one, TAV_HTTP_OPTION_IF_NONE_MATCH, "\"tag\"") ||
            !run.set(one, TAV_HTTP_OPTION_BODY_MD5, 1u) ||
            !run.set(one, TAV_HTTP_OPTION_SESSION_TIMEOUT, 60000)) {
            return;
        }
        if (run.finish(one)) {
            run.expect(run.body(one) == "the body", "wrong body");
            run.expect(run.md5(one) == md5_hex("the body"), "wrong digest");
            run.expect(run.header(one, "X-Test") == "there", "a header is missing");
            std::int32_t length = 0;
            std::uint32_t code = tavHTTPQueryInfo(one->session, TAV_HTTP_QUERY_RAW_HEADERS, nullptr,
                                                  &length, nullptr);
            run.expect(code == 0 || code == TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY,
                       "query 10 gave " + code_text(code));
        }
    };
}

body_function chunked() {
    std::string content = sample_bytes(150000);
    auto server =
        serve([content](const received_request&) { return chunked_response(200, content, 10000); });
    return [server, content](fault_run& run) {
        attempt* one = run.open(server->url());
        if (one != nullptr && run.finish(one)) {
            run.expect(run.body(one) == content, "wrong body");
        }
    };
}

body_function gzip(bool raw) {
    std::string content(200000, 'g');
    std::string packed = raw ? raw_deflate_bytes(content) : gzip_bytes(content);
    std::string line = raw ? "Content-Encoding: deflate\r\n" : "Content-Encoding: gzip\r\n";
    auto server = serve([=](const received_request&) { return response(200, packed, line); });
    return [server, content](fault_run& run) {
        attempt* one = run.open(server->url());
        if (one != nullptr && run.finish(one)) {
            run.expect(run.body(one) == content, "wrong body");
        }
    };
}

body_function file() {
    std::string content = sample_bytes(100000);
    auto server = serve([content](const received_request&) { return response(200, content); });
    return [server, content](fault_run& run) {
        work_dir dir;
        write_file("old.bin", "old");
        attempt* one = run.open(server->url("/f"));
        if (one == nullptr || !run.set(one, TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin") ||
            !run.set(one, TAV_HTTP_OPTION_BODY_MD5, 1u)) {
            return;
        }
        bool ok = run.finish(one);
        run.expect(dir.names() == (ok ? std::vector<std::string>{"old.bin", "out.bin"}
                                      : std::vector<std::string>{"old.bin"}),
                   ok ? "more than the file" : "a file was left");
        run.expect(!ok || read_file("out.bin") == content, "wrong file");
        run.expect(!ok || run.md5(one) == md5_hex(content), "wrong digest");
    };
}

body_function over_file() {
    std::string content = sample_bytes(100000);
    auto server = serve([content](const received_request&) { return response(200, content); });
    return [server, content](fault_run& run) {
        work_dir dir;
        write_file("out.bin", "old");
        attempt* one = run.open(server->url("/f"));
        if (one == nullptr || !run.set(one, TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin")) {
            return;
        }
        bool ok = run.finish(one);
        std::string now = read_file("out.bin");
        // The old file goes before the new one takes its name.
        run.expect(now == (ok ? content : "old") || (!ok && !file_exists("out.bin")), "wrong file");
        run.expect(dir.names().size() <= 1, "a file was left");
    };
}

body_function resume() {
    std::string content = sample_bytes(100000);
    auto server = serve([content](const received_request& request) {
        return request.header("Range") == "bytes=40000-" ? response(206, content.substr(40000))
                                                         : response(200, content);
    });
    return [server, content](fault_run& run) {
        work_dir dir;
        write_file("out.bin", content.substr(0, 40000));
        attempt* one = run.open(server->url("/f"));
        if (one == nullptr || !run.set(one, TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin") ||
            !run.set(one, TAV_HTTP_OPTION_RESUME, 1u)) {
            return;
        }
        bool ok = run.finish(one);
        std::string now = read_file("out.bin");
        run.expect(!ok || now == content, "wrong file");
        run.expect(ok || (now.size() >= 40000 && now == content.substr(0, now.size())),
                   "the bytes that were there are lost");
        run.expect(dir.names().size() == 1, "a file was left");
    };
}

// The file is already longer than the resource: removed, and fetched anew.
body_function refused_range() {
    auto server = serve([](const received_request& request) {
        return request.has_header("Range") ? response(416, "no") : response(200, "whole");
    });
    return [server](fault_run& run) {
        work_dir dir;
        write_file("out.bin", "too long already");
        attempt* one = run.open(server->url());
        if (one == nullptr || !run.set(one, TAV_HTTP_OPTION_DOWNLOAD_FILE, "out.bin") ||
            !run.set(one, TAV_HTTP_OPTION_RESUME, 1u)) {
            return;
        }
        bool ok = run.finish(one);
        run.expect(!ok || read_file("out.bin") == "whole", "wrong file");
    };
}

body_function auto_file() {
    std::string content = sample_bytes(70000);
    auto server = serve([content](const received_request&) { return response(200, content); });
    return [server, content](fault_run& run) {
        work_dir dir;
        std::uint32_t code = tavHTTPSetDownloadDirectory("files");
        if (code != 0) {
            run.outcome("tavHTTPSetDownloadDirectory gave " + code_text(code));
            return;
        }
        attempt* one = run.open(server->url("/name.dat"));
        if (one == nullptr || !run.set(one, TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, 1u)) {
            return;
        }
        bool ok = run.finish(one);
        const char* path = nullptr;
        tavHTTPQueryInfo(one->session, TAV_HTTP_QUERY_FILE_PATH, &path, nullptr, nullptr);
        run.expect(!ok || (path != nullptr && read_file(path) == content), "wrong file");
        run.expect(ok || rmdir("files") == 0, "a file was left");
    };
}

// --------------------------------------------------------------------------------------- uploads

std::string expected_multipart(const std::string& boundary, const std::string& content) {
    std::string line = "--" + boundary + "\r\nContent-Disposition: form-data; name=";
    std::string file_lines = "\r\nContent-Type: application/octet-stream\r\n"
                             "Content-Transfer-Encoding: binary\r\n\r\n";
    return line + "\"field\"\r\n\r\nvalue\r\n" + line + "\"file\"; filename=\"named.bin\"" +
           file_lines + content + "\r\n" + line + "\"data\"; filename=\"d.bin\"" + file_lines +
           "bytes\r\n--" + boundary + "--\r\n";
}

body_function multipart() {
    std::string content = sample_bytes(40000);
    auto server = serve([content](const received_request& request) {
        std::string type = request.header("Content-Type");
        std::size_t at = type.find("boundary=");
        std::string boundary = at != std::string::npos ? type.substr(at + 9) : "";
        bool complete = request.body == expected_multipart(boundary, content);
        return response(200, complete ? "complete" : "damaged");
    });
    return [server, content](fault_run& run) {
        work_dir dir;
        write_file("upload.bin", content);
        attempt* one = run.open(server->url(), TAV_HTTP_METHOD_POST);
        if (one == nullptr ||
            !run.set(one, TAV_HTTP_OPTION_ADD_FORM_FIELD, "field", "%s", "value") ||
            !run.set(one, TAV_HTTP_OPTION_ADD_FORM_FILE, "file", "upload.bin", "named.bin") ||
            !run.set(one, TAV_HTTP_OPTION_ADD_FORM_DATA, "data", "bytes", 5, "d.bin")) {
            return;
        }
        if (run.finish(one)) {
            run.expect(run.body(one) == "complete",
                       "the server received a " + run.body(one) + " form");
        }
    };
}

body_function url_encoded() {
    auto server = serve([](const received_request& request) {
        return response(200, request.body == "a=1%202&b=x" ? "complete" : "damaged");
    });
    return [server](fault_run& run) {
        attempt* one = run.open(server->url(), TAV_HTTP_METHOD_POST);
        if (one == nullptr || !run.set(one, TAV_HTTP_OPTION_ADD_FORM_FIELD, "a", "%d %d", 1, 2) ||
            !run.set(one, TAV_HTTP_OPTION_ADD_FORM_FIELD, "b", "x")) {
            return;
        }
        if (run.finish(one)) {
            run.expect(run.body(one) == "complete", "damaged form");
        }
    };
}

body_function upload_file() {
    std::string content = sample_bytes(50000);
    auto server = serve([content](const received_request& request) {
        return response(200, request.body == content ? "complete" : "damaged");
    });
    return [server, content](fault_run& run) {
        work_dir dir;
        write_file("upload.bin", content);
        attempt* one = run.open(server->url(), TAV_HTTP_METHOD_POST);
        if (one == nullptr || !run.set(one, TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin")) {
            return;
        }
        if (run.finish(one)) {
            run.expect(run.body(one) == "complete", "damaged body");
        }
    };
}

// ------------------------------------------------------------------------------------ connections

#if TAV_HTTP_WITH_TLS
body_function https() {
    tls_options options;
    options.subject = {{"O", "Test"}, {"CN", "server.test"}};
    auto server = std::make_shared<tls_server>(answer_all(response(200, "secret")), options);
    return [server](fault_run& run) {
        attempt* one = run.open(server->url());
        if (one == nullptr || !run.set(one, TAV_HTTP_OPTION_TLS_HOST_NAME, "server.test")) {
            return;
        }
        if (run.finish(one)) {
            run.expect(run.body(one) == "secret", "wrong body");
        }
    };
}

// A certificate for another name: whatever fails, the check must not be skipped.
body_function https_other_name() {
    auto server = std::make_shared<tls_server>(answer_all(response(200, "secret")));
    return [server](fault_run& run) {
        attempt* one = run.open(server->url());
        if (one != nullptr && run.set(one, TAV_HTTP_OPTION_TLS_HOST_NAME, "other.test")) {
            run.expect(!run.finish(one), "the name was not checked");
        }
    };
}
#endif

body_function http_proxy() {
    auto server = serve(script{expect_request(), send_text("HTTP/1.1 200 Established\r\n\r\n"),
                               expect_request(), send_text(response(200, "through"))});
    return [server](fault_run& run) {
        proxy_info proxy = make_proxy(TAV_HTTP_PROXY_HTTP, server->port());
        std::size_t before = server->request_count();
        attempt* one = run.open("http://target.test/path", TAV_HTTP_METHOD_GET, &proxy);
        if (one != nullptr && run.finish(one)) {
            run.expect(run.body(one) == "through", "wrong body");
            run.expect(server->request(before).header("Proxy-Authorization") ==
                           "Basic dXNlcjpzZWNyZXQ=",
                       "no credentials");
        }
    };
}

std::string bytes(std::initializer_list<int> values) {
    std::string text;
    for (int value : values) {
        text += static_cast<char>(value);
    }
    return text;
}

body_function socks_proxy() {
    // Greeting, user and password, request; "target.test" has 11 bytes.
    auto server = serve(script{read_bytes(3), send_text(bytes({5, 2})), read_bytes(3 + 4 + 6),
                               send_text(bytes({1, 0})), read_bytes(4 + 1 + 11 + 2),
                               send_text(bytes({5, 0, 0, 1, 127, 0, 0, 1, 0, 80})),
                               expect_request(), send_text(response(200, "through"))});
    return [server](fault_run& run) {
        proxy_info proxy = make_proxy(TAV_HTTP_PROXY_SOCKS5, server->port());
        attempt* one = run.open("http://target.test/path");
        if (one == nullptr || !run.set(one, TAV_HTTP_OPTION_PROXY, &proxy)) {
            return;
        }
        if (run.finish(one)) {
            run.expect(run.body(one) == "through", "wrong body");
        }
    };
}

// The target can be reached without the proxy: no fault may take the session past it.
body_function default_proxy() {
    auto server = serve([](const received_request&) { return response(200, "direct"); });
    auto proxy_server = serve(script{expect_request(), send_text("HTTP/1.1 200 OK\r\n\r\n"),
                                     expect_request(), send_text(response(200, "through"))});
    return [server, proxy_server](fault_run& run) {
        proxy_info proxy = make_proxy(TAV_HTTP_PROXY_HTTP, proxy_server->port());
        std::uint32_t code = tavHTTPSetDefaultProxy(&proxy);
        if (code != 0) {
            run.outcome("tavHTTPSetDefaultProxy gave " + code_text(code));
            return;
        }
        attempt* one = run.open(server->url());
        if (one != nullptr && run.finish(one)) {
            run.expect(run.body(one) == "through", "went past the proxy");
        }
    };
}

body_function redirect() {
    auto server = serve([](const received_request& request) {
        return request.target == "/to/here"
                   ? response(200, "target")
                   : response(302, "moved", "Location: /to/here\r\nSet-Cookie: c=1\r\n");
    });
    return [server](fault_run& run) {
        attempt* one = run.open(server->url("/from#part"));
        if (one != nullptr && run.finish(one)) {
            run.expect(run.body(one) == "target", "wrong body");
        }
    };
}

body_function pooled() {
    auto server = serve([](const received_request& request) {
        return response(200, request.target, "Connection: keep-alive\r\n");
    });
    return [server](fault_run& run) {
        for (const char* target : {"/first", "/second"}) {
            attempt* one = run.open(server->url(target));
            if (one == nullptr) {
                return;
            }
            if (run.finish(one)) {
                run.expect(run.body(one) == target, "wrong body");
            }
            run.close(one);
        }
    };
}

// The host keeps connections that the server closes: the second session finds a dead one.
body_function retry() {
    auto server = serve([](const received_request& request) {
        return response(200, request.target, "Connection: close\r\n");
    });
    return [server](fault_run& run) {
        for (const char* target : {"/first", "/second"}) {
            attempt* one = run.open(server->url(target));
            if (one == nullptr || !run.set(one, TAV_HTTP_OPTION_KEEP_ALIVE, 1u, 60000, 0)) {
                return;
            }
            if (run.finish(one)) {
                run.expect(run.body(one) == target, "wrong body");
            }
        }
    };
}

// --------------------------------------------------------------------------------- many, and ends

body_function several() {
    auto server =
        serve([](const received_request& request) { return response(200, request.target); });
    return [server](fault_run& run) {
        std::vector<attempt*> sent;
        for (int i = 0; i < 5; i++) {
            attempt* one = run.open(server->url("/" + std::to_string(i)));
            if (one != nullptr &&
                run.set(one, TAV_HTTP_OPTION_PRIORITY,
                        i == 0 ? TAV_HTTP_PRIORITY_HIGH : TAV_HTTP_PRIORITY_LOW) &&
                run.send(one)) {
                sent.push_back(one);
            }
        }
        for (attempt* one : sent) {
            if (run.wait(one)) {
                run.expect(run.body(one).size() == 2, "wrong body");
            }
        }
    };
}

body_function cancelled() {
    auto server = serve(script{expect_request(), send_text("HTTP/1.1 200 OK\r\n")});
    return [server](fault_run& run) {
        attempt* one = run.open(server->url());
        if (one == nullptr || !run.set(one, TAV_HTTP_OPTION_IO_TIMEOUT, 20) || !run.send(one)) {
            return;
        }
        tavHTTPCancelRequest(one->session);
        run.expect(!run.wait(one), "completed with 0");
    };
}

// Closed, or left to the shut-down, while the server has said half of its answer. The server hangs
// up in the end: a receive whose timer could not be started waits for that.
body_function in_flight(bool close) {
    auto hang_up = std::make_shared<std::future<void>>();
    return [close, hang_up](fault_run& run) {
        auto server = serve(
            script{expect_request(), send_text(response(200, "body").substr(0, 30)), stall()});
        *hang_up = std::async(std::launch::async, [server] {
            server->wait_for_requests(2, milliseconds(60));
            server->release();
        });
        attempt* one = run.open(server->url());
        if (one == nullptr || !run.set(one, TAV_HTTP_OPTION_IO_TIMEOUT, 30) || !run.send(one)) {
            return;
        }
        server->wait_for_requests(1, milliseconds(50));
        if (close) {
            run.close(one);
        }
    };
}

body_function settings() {
    return [](fault_run& run) {
        work_dir dir;
        std::uint32_t code = tavHTTPSetDownloadDirectory("a/b");
        char directory[64] = "";
        std::int32_t length = sizeof directory;
        tavHTTPGetDownloadDirectory(directory, &length);
        if (code != 0) {
            run.outcome("tavHTTPSetDownloadDirectory gave " + code_text(code));
        }
        run.expect(code == 0 || std::string(directory) == "", "a directory in spite of an error");
        proxy_info proxy = make_proxy(TAV_HTTP_PROXY_HTTP, 1);
        code = tavHTTPSetDefaultProxy(&proxy);
        if (code != 0) {
            run.outcome("tavHTTPSetDefaultProxy gave " + code_text(code));
        }
        proxy_info* copy = get_default_proxy_copy();
        run.expect(copy == nullptr || std::strcmp(copy->password, "secret") == 0, "half a proxy");
        free_proxy_info(copy);
    };
}

}  // namespace

const std::vector<scenario>& all_scenarios() {
    static const std::vector<scenario> all = {
        {"memory", memory},
        {"chunked", chunked},
        {"gzip", [] { return gzip(false); }},
        {"raw_deflate", [] { return gzip(true); }},
        {"file", file},
        {"over_file", over_file},
        {"resume", resume},
        {"refused_range", refused_range},
        {"auto_file", auto_file},
        {"multipart", multipart},
        {"url_encoded", url_encoded},
        {"upload_file", upload_file},
#if TAV_HTTP_WITH_TLS
        {"https", https},
        {"https_other_name", https_other_name},
#endif
        {"http_proxy", http_proxy},
        {"socks_proxy", socks_proxy},
        {"default_proxy", default_proxy},
        {"redirect", redirect},
        {"pooled", pooled},
        {"retry", retry},
        {"several", several},
        {"cancelled", cancelled},
        {"closed_in_flight", [] { return in_flight(true); }},
        {"stopped_in_flight", [] { return in_flight(false); }},
        {"settings", settings},
    };
    return all;
}
