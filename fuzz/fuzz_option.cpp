// Options of a session, and the request head made of them. First line: the URL; then options, each
// a byte that chooses one and a line for its value.
#include "fuzz/fuzz_support.h"

#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httprequest.h"
#include "tavhttpclient/httprequest_items.h"
#include "tavhttpclient/httpsession.h"
#include "tavhttpclient/upload_item.h"

namespace {

void on_complete(http_session*, void*, uint32_t) {
}

// Paths of an input are not let loose on the machine's files.
std::string tame_path(const std::string& text) {
    return text == "!" ? "/proc/version" : "/nonexistent/" + text;
}

int32_t number_of(const std::string& text) {
    return static_cast<int32_t>(strtol(text.c_str(), nullptr, 10));
}

void set_text(http_session* session, uint32_t option, const std::string& text) {
    heap_block value = exact_text(text);
    tavHTTPSetOption(session, option, value.get());
}

void set_proxy(http_session* session, const std::string& text) {
    heap_block host = exact_text(text);
    proxy_info proxy = {};
    proxy.type = static_cast<uint32_t>(text.size() % 3);
    proxy.host = host.get();
    proxy.user_name = host.get();
    proxy.port = 1;
    tavHTTPSetOption(session, TAV_HTTP_OPTION_PROXY, &proxy);
}

void set_form_option(http_session* session, uint32_t choice, const std::string& text) {
    size_t at = text.find('=');
    heap_block name = exact_text(text.substr(0, at));
    heap_block value = exact_text(at != std::string::npos ? text.substr(at + 1) : "");
    switch (choice) {
    case 0:
        tavHTTPSetOption(session, TAV_HTTP_OPTION_ADD_HEADER, name.get(), "%s", value.get());
        break;
    case 1:
        tavHTTPSetOption(session, TAV_HTTP_OPTION_ADD_FORM_FIELD, name.get(), "%s", value.get());
        break;
    case 2:
        tavHTTPSetOption(session, TAV_HTTP_OPTION_ADD_FORM_FILE, name.get(),
                         tame_path(value.get()).c_str(), nullptr);
        break;
    case 3:
        tavHTTPSetOption(session, TAV_HTTP_OPTION_ADD_FORM_DATA, name.get(), value.get(),
                         static_cast<int32_t>(strlen(value.get())), name.get());
        break;
    case 4:
        tavHTTPSetOption(session, TAV_HTTP_OPTION_ADD_FORM_FILE, name.get(), nullptr, value.get());
        break;
    default:
        tavHTTPSetOption(session, TAV_HTTP_OPTION_APPEND_BODY, text.data(),
                         static_cast<uint32_t>(text.size()));
        break;
    }
}

void set_number_option(http_session* session, uint32_t choice, const std::string& text) {
    static const uint32_t numbers[] = {
        TAV_HTTP_OPTION_NO_REDIRECT,     TAV_HTTP_OPTION_CONNECT_TIMEOUT,
        TAV_HTTP_OPTION_CONNECTION,      TAV_HTTP_OPTION_NO_COOKIE_STORE,
        TAV_HTTP_OPTION_NO_COMPRESSION,  TAV_HTTP_OPTION_RESUME,
        TAV_HTTP_OPTION_PRIORITY,        TAV_HTTP_OPTION_HIDE_URL,
        TAV_HTTP_OPTION_DOWNLOAD_TO_FILE};
    size_t count = sizeof numbers / sizeof numbers[0];
    if (choice < count) {
        tavHTTPSetOption(session, numbers[choice], number_of(text));
        return;
    }
    size_t at = text.find('-', 1);
    int64_t first = strtoll(text.c_str(), nullptr, 10);
    int64_t last = at != std::string::npos ? strtoll(text.c_str() + at + 1, nullptr, 10) : -1;
    if (choice == count) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_RANGE, first, last);
    } else {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_IF_MODIFIED_SINCE, first);
    }
}

void set_one(http_session* session, uint8_t choice, const std::string& text) {
    static const uint32_t texts[] = {TAV_HTTP_OPTION_IF_NONE_MATCH, TAV_HTTP_OPTION_COOKIE,
                                     TAV_HTTP_OPTION_ACCEPT,        TAV_HTTP_OPTION_USER_AGENT,
                                     TAV_HTTP_OPTION_TLS_HOST_NAME, TAV_HTTP_OPTION_HOST,
                                     TAV_HTTP_OPTION_CACHE_CONTROL};
    size_t count = sizeof texts / sizeof texts[0];
    uint32_t kind = choice % 32u;
    if (kind < count) {
        set_text(session, texts[kind], text);
    } else if (kind == 7) {
        set_text(session, TAV_HTTP_OPTION_DOWNLOAD_FILE, tame_path(text));
    } else if (kind == 8) {
        set_text(session, TAV_HTTP_OPTION_UPLOAD_FILE, tame_path(text));
    } else if (kind == 9) {
        set_proxy(session, text);
    } else if (kind < 16) {
        set_form_option(session, kind - 10, text);
    } else {
        set_number_option(session, kind - 16, text);
    }
}

// The length that the head announces is the length of what would follow.
void check_head(http_session* session) {
    const http_request* request = session->request;
    const text_buffer& header = request->header;
    FUZZ_CHECK(header.length > 4 && memcmp(header.data + header.length - 4, "\r\n\r\n", 4) == 0);
    int64_t body = 0;
    const list_link* head = &request->upload_item_list;
    for (const list_link* link = head->next; link != head; link = link->next) {
        const auto* item = reinterpret_cast<const upload_item*>(link);
        body += item->part_header.length + item->part_tailer.length + item->file_size;
        body += item->data != nullptr ? item->data->length : 0;
    }
    FUZZ_CHECK(request->total_bytes == header.length + body);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool started = fuzz_start();
    (void)started;
    fuzz_input input(data, size);
    uint8_t method = input.byte();
    heap_block url = exact_text(input.line());
    http_session* session = tavHTTPOpen(1 + method % 4u, url.get(), nullptr, nullptr, on_complete);
    while (!input.empty()) {
        uint8_t choice = input.byte();
        set_one(session, choice, input.line());
    }
    string_replace(&session->request->url, session->options->url);
    if (http_request_prepare(session) == 0) {
        check_head(session);
    }
    http_session_free(session);
    return 0;
}
