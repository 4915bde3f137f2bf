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
        uint32_t (*set)(http_session*, const char*);
    } own_lines[] = {{"accept", tav_http_set_accept},
                     {"cache-control", tav_http_set_cache_control},
                     {"cookie", tav_http_set_cookie},
                     {"host", tav_http_set_host},
                     {"if-none-match", tav_http_set_if_none_match},
                     {"user-agent", tav_http_set_user_agent}};
    std::string name = lower_case(header.first);
    for (const auto& line : own_lines) {
        if (name == line.name) {
            line.set(session, header.second.c_str());
            return;
        }
    }
    if (name == "connection") {
        tav_http_set_connection(session, lower_case(header.second) == "close" ? 2 : 1);
        return;
    }
    tav_http_add_header(session, header.first.c_str(), header.second.c_str());
}

// Returns the code of the first piece that the library did not take: without it something else than
// what the user named would be sent.
static uint32_t set_body(http_session* session, const arguments& args) {
    uint32_t code = 0;
    for (const text_pair& field : args.form_fields) {
        code = code != 0
                   ? code
                   : tav_http_add_form_field(session, field.first.c_str(), field.second.c_str());
    }
    for (const form_file& file : args.form_files) {
        code = code != 0 ? code
                         : tav_http_add_form_file(session, file.name.c_str(), file.path.c_str(),
                                                  file.announced.c_str());
    }
    // In pieces, since an option takes 32 bits of length.
    const size_t most = 64u << 20;
    for (size_t offset = 0; code == 0 && offset < args.body.size(); offset += most) {
        code = tav_http_append_body(session, args.body.data() + offset,
                                    (uint32_t)std::min(most, args.body.size() - offset));
    }
    if (code == 0 && !args.upload.empty()) {
        code = tav_http_set_upload_file(session, args.upload.c_str());
    }
    return code;
}

static void set_target(http_session* session, const transfer& item) {
    const arguments& args = *item.args;
    if (item.target.kind == TARGET_FILE) {
        tav_http_set_download_file(session, item.target.working.c_str());
        tav_http_set_resume(session, item.resuming);
    } else if (item.target.kind == TARGET_AUTO_FILE) {
        tav_http_set_download_to_file(session, 1);
    }
    if (args.range) {
        tav_http_set_range(session, args.range->first, args.range->last);
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
    tav_http_set_proxy(session, &proxy);
}

// The library sends a session's header lines wherever it is redirected to, so another host gets a
// session without them.
static void set_headers(http_session* session, const transfer& item) {
    bool is_home = is_same_origin(item.url, item.current_url);
    bool has_own_login = false;
    for (const text_pair& header : item.args->headers) {
        std::string name = lower_case(header.first);
        has_own_login = has_own_login || name == "authorization";
        if (is_home || (!is_secret_header(name) && name != "host")) {
            set_header(session, header);
        }
    }
    if (is_home && !item.args->cookie.empty()) {
        tav_http_set_cookie(session, item.args->cookie.c_str());
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
    tav_http_set_connect_timeout(session, args.connect_timeout);
    tav_http_set_io_timeout(session, args.io_timeout);
    tav_http_set_session_timeout(session, args.session_timeout);
    tav_http_set_priority(session, args.priority);
    tav_http_set_queue_fifo(session, 1);
    tav_http_set_no_redirect(session, args.no_redirect);
    tavHTTPSetOption(session, TAV_HTTP_OPTION_BODY_MD5, (uint32_t)args.md5);
    if (!args.tls_name.empty()) {
        tav_http_set_tls_host_name(session, args.tls_name.c_str());
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
