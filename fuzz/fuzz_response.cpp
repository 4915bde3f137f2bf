// A response as it comes from the network: parser, decoders, cookies, and the writer behind them.
//
// Byte 0 chooses the options, byte 1 how the rest is cut into pieces.
#include "fuzz/fuzz_support.h"

#include <sys/mman.h>

#include "tavhttpclient/cookiemgr.h"
#include "tavhttpclient/httpconnect.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/httpresponse_body.h"
#include "tavhttpclient/httpsession.h"
#include "tavhttpclient/message_parser.h"

namespace {

enum {
    KEEP_UNDECODED = 1,
    BODY_MD5 = 2,
    KEEP_ERROR_BODY = 4,
    TO_FILE = 8,
    DATA_CALLBACK = 16
};

uint64_t handed_over = 0;

void on_complete(http_session*, void*, uint32_t) {
}

void on_data(http_session*, void*, uint64_t offset, const void* data, uint32_t length) {
    FUZZ_CHECK(offset == handed_over);
    handed_over += length;
    const auto* bytes = static_cast<const volatile uint8_t*>(data);
    for (uint32_t i = 0; i < length; i++) {
        (void)bytes[i];
    }
}

http_session* make_session(uint8_t flags) {
    http_session* session =
        tavHTTPOpen(TAV_HTTP_METHOD_GET, "http://host.test/a/b?c#d", nullptr, nullptr, on_complete);
    http_options* options = session->options;
    options->keep_undecoded_body = flags & KEEP_UNDECODED;
    options->body_md5 = (flags & BODY_MD5) != 0 ? 1 : 0;
    options->keep_error_body = (flags & KEEP_ERROR_BODY) != 0 ? 1 : 0;
    if ((flags & TO_FILE) != 0) {
        // A resumed download is written in place, so no file is made.
        static int target = memfd_create("target", MFD_CLOEXEC);
        std::string path = "/proc/self/fd/" + std::to_string(target);
        tavHTTPSetOption(session, TAV_HTTP_OPTION_DOWNLOAD_FILE, path.c_str());
        tavHTTPSetOption(session, TAV_HTTP_OPTION_RESUME, 1u);
    }
    if ((flags & DATA_CALLBACK) != 0) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_DOWNLOAD_DATA_CALLBACK, on_data);
    }
    string_replace(&session->request->url, options->url);
    session->response = new_http_response(session);
    return session;
}

// As the receiving side goes on after each read. False: nothing more is received.
bool receive(http_session* session, const heap_block& piece, size_t size) {
    http_response* response = session->response;
    if (!parse_response_message(response, piece.get(), static_cast<uint32_t>(size))) {
        return false;
    }
    return write_response_body(session) == 0 && response->recv_state != RECV_COMPLETE;
}

void query_everything(http_session* session) {
    char buffer[64];
    int32_t length = sizeof buffer;
    char name[] = "Set-Cookie";
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_HEADER, name, buffer, &length);
    length = sizeof buffer;
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_HEADER_ALL, name, buffer, &length);
    length = sizeof buffer;
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_RAW_HEADERS, buffer, &length, nullptr);
    const char* cookies = nullptr;
    tavHTTPQueryInfo(session, TAV_HTTP_QUERY_SET_COOKIE, &cookies, nullptr, nullptr);
    while (cookies != nullptr && *cookies != '\0') {
        cookies += strlen(cookies) + 1;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool started = fuzz_start();
    (void)started;
    fuzz_input input(data, size);
    uint8_t flags = input.byte();
    uint32_t cuts = input.byte();
    init_cookie_store();
    http_session* session = make_session(flags);
    // Not looked into: it only says that the peer has not closed.
    http_connection open_connection = {};
    handed_over = 0;

    const char* at = input.rest();
    size_t left = input.rest_size();
    bool more = left > 0;
    while (more) {
        cuts = cuts * 1103515245u + 12345u;
        size_t wanted = (cuts >> 16) % 4 == 0 ? left : 1 + (cuts >> 16) % 61;
        size_t count = wanted < left ? wanted : left;
        session->connection = count < left ? &open_connection : nullptr;
        more = receive(session, exact_block(at, count), count) && count < left;
        at += count;
        left -= count;
    }
    session->connection = nullptr;
    FUZZ_CHECK(session->response->delivered_bytes <= session->response->body_bytes);
    query_everything(session);
    if (session->options->body_md5 != 0) {
        finish_body_md5(session->response);
    }
    http_session_free(session);
    uninit_cookie_store();
    return 0;
}
