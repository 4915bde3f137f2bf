// The head of a request, and the parse of a response.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include "tavhttpclient/cookiemgr.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httprequest_head.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/httpsession.h"
#include "tavhttpclient/message_parser.h"

namespace {

const char url[] = "http://files.example.com/some/path/to/a/file.bin?a=1&b=2";

void on_complete(http_session*, void*, std::uint32_t) {
}

// A session that is never sent; released without a loop, so by hand.
struct idle_session {
    http_session* session;

    idle_session() {
        init_cookie_store();
        session = tavHTTPOpen(TAV_HTTP_METHOD_GET, url, nullptr, nullptr, on_complete);
        string_replace(&session->request->url, url);
    }

    ~idle_session() {
        http_session_free(session);
        uninit_cookie_store();
    }
};

void request_head(benchmark::State& state) {
    idle_session idle;
    http_session* session = idle.session;
    for (int i = 0; i < state.range(0); i++) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_ADD_HEADER, "X-Own-Header", "value %d", i);
    }
    for (auto _ : state) {
        _build_request_header(session->request, session->options, &session->request->header);
        benchmark::DoNotOptimize(session->request->header.data);
    }
}
BENCHMARK(request_head)->ArgName("own_lines")->Arg(0)->Arg(20);

const std::string response_head =
    "HTTP/1.1 200 OK\r\nServer: nginx/1.22.1\r\nDate: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
    "Content-Type: application/octet-stream\r\nLast-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
    "Connection: keep-alive\r\nETag: \"5f0c5d9b-400\"\r\nAccept-Ranges: bytes\r\n";

void parse(benchmark::State& state, const std::string& message) {
    idle_session idle;
    for (auto _ : state) {
        http_response* response = new_http_response(idle.session);
        bool ok = parse_response_message(response, message.data(),
                                         static_cast<std::uint32_t>(message.size()));
        if (!ok || response->recv_state != RECV_COMPLETE) {
            state.SkipWithError("the parse failed");
        }
        free_http_response(response);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(message.size()));
}

void response_small(benchmark::State& state) {
    parse(state, response_head + "Content-Length: 1024\r\n\r\n" + std::string(1024, 'b'));
}
BENCHMARK(response_small);

void response_cookies(benchmark::State& state) {
    std::string lines;
    for (int i = 0; i < 10; i++) {
        lines += "Set-Cookie: name" + std::to_string(i) + "=value; path=/; HttpOnly\r\n";
    }
    parse(state, response_head + lines + "Content-Length: 1\r\n\r\nb");
}
BENCHMARK(response_cookies);

void response_chunked(benchmark::State& state) {
    std::string body;
    for (int i = 0; i < 8; i++) {
        body += "1000\r\n" + std::string(4096, 'b') + "\r\n";
    }
    parse(state, response_head + "Transfer-Encoding: chunked\r\n\r\n" + body + "0\r\n\r\n");
}
BENCHMARK(response_chunked);

}  // namespace
