#include "session_options.h"

#include <algorithm>

#include "text.h"
#include "url.h"

bool is_secret_header(const std::string& name) {
    std::string lower = lower_case(name);
    return lower == "authorization" || lower == "cookie" || lower == "proxy-authorization";
}

// Lines that the library writes itself are replaced with its options; a line added beside them
// would be sent twice.
static void set_header(http_session* session, const text_pair& header) {
    static const struct {
        const char* name;
        uint32_t option;
    } own_lines[] = {{"accept", TAV_HTTP_OPTION_ACCEPT},
                     {"cache-control", TAV_HTTP_OPTION_CACHE_CONTROL},
                     {"cookie", TAV_HTTP_OPTION_COOKIE},
                     {"host", TAV_HTTP_OPTION_HOST},
                     {"if-none-match", TAV_HTTP_OPTION_IF_NONE_MATCH},
                     {"user-agent", TAV_HTTP_OPTION_USER_AGENT}};
    std::string name = lower_case(header.first);
    for (const auto& line : own_lines) {
        if (name == line.name) {
            tavHTTPSetOption(session, line.option, header.second.c_str());
            return;
        }
    }
    if (name == "connection") {
        uint32_t mode = lower_case(header.second) == "close" ? 2 : 1;
        tavHTTPSetOption(session, TAV_HTTP_OPTION_CONNECTION, mode);
        return;
    }
    tavHTTPSetOption(session, TAV_HTTP_OPTION_ADD_HEADER, header.first.c_str(), "%s",
                     header.second.c_str());
}

// Returns the code of the first piece that the library did not take: without it something else than
// what the user named would be sent.
static uint32_t set_body(http_session* session, const arguments& args) {
    uint32_t code = 0;
    for (const text_pair& field : args.form_fields) {
        code = code != 0 ? code
                         : tavHTTPSetOption(session, TAV_HTTP_OPTION_ADD_FORM_FIELD,
                                            field.first.c_str(), "%s", field.second.c_str());
    }
    for (const form_file& file : args.form_files) {
        code = code != 0
                   ? code
                   : tavHTTPSetOption(session, TAV_HTTP_OPTION_ADD_FORM_FILE, file.name.c_str(),
                                      file.path.c_str(), file.announced.c_str());
    }
    // In pieces, since an option takes 32 bits of length.
    const size_t most = 64u << 20;
    for (size_t offset = 0; code == 0 && offset < args.body.size(); offset += most) {
        code = tavHTTPSetOption(session, TAV_HTTP_OPTION_APPEND_BODY, args.body.data() + offset,
                                (uint32_t)std::min(most, args.body.size() - offset));
    }
    if (code == 0 && !args.upload.empty()) {
        code = tavHTTPSetOption(session, TAV_HTTP_OPTION_UPLOAD_FILE, args.upload.c_str());
    }
    return code;
}

static void set_target(http_session* session, const transfer& item) {
    const arguments& args = *item.args;
    if (item.target.kind == TARGET_FILE) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_DOWNLOAD_FILE, item.target.working.c_str());
        tavHTTPSetOption(session, TAV_HTTP_OPTION_RESUME, (uint32_t)item.resuming);
    } else if (item.target.kind == TARGET_AUTO_FILE) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, (uint32_t)1);
    }
    if (args.range) {
        // 64-bit options read 64 bits: the values must have that type.
        tavHTTPSetOption(session, TAV_HTTP_OPTION_RANGE, (int64_t)args.range->first,
                         (int64_t)args.range->last);
    }
    // What another attempt received is continued only while the resource is the same.
    if (item.resume_from > 0 && !item.validator.empty()) {
        set_header(session, {"If-Range", item.validator});
    }
}

static void set_proxy(http_session* session, const proxy_address& address) {
    // The library copies the record; it never writes to the texts.
    proxy_info proxy{};
    proxy.type = address.type;
    proxy.host = (char*)address.host.c_str();
    proxy.port = address.port;
    if (!address.user_name.empty()) {
        proxy.user_name = (char*)address.user_name.c_str();
        proxy.password = (char*)address.password.c_str();
    }
    tavHTTPSetOption(session, TAV_HTTP_OPTION_PROXY, &proxy);
}

// The library sends a session's header lines wherever it is redirected to, so another host gets a
// session without them.
static void set_headers(http_session* session, const transfer& item) {
    bool is_home = is_same_origin(item.url, item.current_url);
    bool has_own_login = false;
    for (const text_pair& header : item.args->headers) {
        has_own_login = has_own_login || lower_case(header.first) == "authorization";
        if (is_home || !is_secret_header(header.first)) {
            set_header(session, header);
        }
    }
    if (is_home && !item.args->cookie.empty()) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_COOKIE, item.args->cookie.c_str());
    }
    if (is_home && !item.authorization.empty() && !has_own_login) {
        set_header(session, {"Authorization", item.authorization});
    }
}

http_session* open_session(transfer* item, complete_callback callback) {
    const arguments& args = *item->args;
    uint32_t method = args.head       ? TAV_HTTP_METHOD_HEAD
                      : is_post(args) ? TAV_HTTP_METHOD_POST
                                      : TAV_HTTP_METHOD_GET;
    http_session* session = tavHTTPOpen(method, item->current_url.c_str(), nullptr, item, callback);
    if (session == nullptr) {
        return nullptr;
    }
    tavHTTPSetOption(session, TAV_HTTP_OPTION_CONNECT_TIMEOUT, args.connect_timeout);
    tavHTTPSetOption(session, TAV_HTTP_OPTION_IO_TIMEOUT, args.io_timeout);
    tavHTTPSetOption(session, TAV_HTTP_OPTION_SESSION_TIMEOUT, args.session_timeout);
    tavHTTPSetOption(session, TAV_HTTP_OPTION_PRIORITY, (int32_t)args.priority);
    tavHTTPSetOption(session, TAV_HTTP_OPTION_QUEUE_FIFO, (uint32_t)1);
    tavHTTPSetOption(session, TAV_HTTP_OPTION_NO_REDIRECT, (uint32_t)args.no_redirect);
    tavHTTPSetOption(session, TAV_HTTP_OPTION_BODY_MD5, (uint32_t)args.md5);
    if (!args.tls_name.empty()) {
        tavHTTPSetOption(session, TAV_HTTP_OPTION_TLS_HOST_NAME, args.tls_name.c_str());
    }
    if (item->proxy) {
        set_proxy(session, *item->proxy);
    }
    set_headers(session, *item);
    set_target(session, *item);
    if (set_body(session, args) != 0) {
        tavHTTPClose(session);
        return nullptr;
    }
    return session;
}
