/// @file
/// tavHTTPClient for C++17: the same functions with types. Header only, on top of tavhttpclient.h.
///
/// - Every option is a member function of tavhttp::session that takes its value in the right width,
///   so that no int is passed where 64 bits are read.
/// - Callbacks are std::function; queries return values; codes are std::error_code.
/// - A session closes itself. It may be destroyed at any moment and on any thread, inside its own
///   callbacks too. No callback starts after that; one that is running on another thread goes on,
///   and the functions that it was given live until it returns. So capture by value, or by
///   std::shared_ptr, what a callback may need after the session's end.
///
/// Nothing here throws on its own account; running out of memory does what it does in the standard
/// library. A callback that throws ends the program: it is called from C code.
#ifndef TAVHTTPCLIENT_TAVHTTPCLIENT_HPP
#define TAVHTTPCLIENT_TAVHTTPCLIENT_HPP

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tavhttpclient/tavhttpclient.h"

/// The C++ layer.
namespace tavhttp {

// ------------------------------------------------------------------------------------ error codes

/// The codes under the names of the C header: `code == tavhttp::errc::TAV_HTTP_ERROR_CODE_CANCEL`.
/// They compare equal to the std::error_code that functions and callbacks give.
enum class errc : std::uint32_t {
/// @cond
#define TAV_HTTP_ERROR_CODE_ENUM(name, value) name = value,
    TAV_HTTP_ERROR_CODE_MAP(TAV_HTTP_ERROR_CODE_ENUM)
#undef TAV_HTTP_ERROR_CODE_ENUM
    /// @endcond
};

/// @cond
namespace detail {

class error_category : public std::error_category {
  public:
    const char* name() const noexcept override {
        return "tavhttp";
    }

    std::string message(int value) const override {
        switch (static_cast<std::uint32_t>(value)) {
#define TAV_HTTP_ERROR_CODE_NAME(name, number)                                                     \
    case number:                                                                                   \
        return #name;
            TAV_HTTP_ERROR_CODE_MAP(TAV_HTTP_ERROR_CODE_NAME)
#undef TAV_HTTP_ERROR_CODE_NAME
        default:
            return "TAV_HTTP_ERROR_CODE_UNKNOWN";
        }
    }
};

}  // namespace detail
/// @endcond

/// The category of all codes; a code's message is its name in the C header.
inline const std::error_category& category() noexcept {
    static const detail::error_category instance;
    return instance;
}

/// A code of the C functions as std::error_code. Mind that TAV_HTTP_ERROR_CODE_NOT_MODIFIED is not
/// 0 and so counts as an error.
inline std::error_code make_error(std::uint32_t code) noexcept {
    return std::error_code(static_cast<int>(code), category());
}

/// Lets a tavhttp::errc become a std::error_code by itself.
inline std::error_code make_error_code(errc code) noexcept {
    return make_error(static_cast<std::uint32_t>(code));
}

}  // namespace tavhttp

/// @cond
template <> struct std::is_error_code_enum<tavhttp::errc> : std::true_type {};
/// @endcond

namespace tavhttp {

// ----------------------------------------------------------------------------------- plain values

/// What a session asks for.
enum class method : std::uint32_t {
    get = TAV_HTTP_METHOD_GET,         ///< GET
    post = TAV_HTTP_METHOD_POST,       ///< POST
    head = TAV_HTTP_METHOD_HEAD,       ///< HEAD
    options = TAV_HTTP_METHOD_OPTIONS  ///< OPTIONS
};

/// The order in which waiting sessions start.
enum class priority : std::int32_t {
    low = TAV_HTTP_PRIORITY_LOW,        ///< after all others
    normal = TAV_HTTP_PRIORITY_NORMAL,  ///< the default
    high = TAV_HTTP_PRIORITY_HIGH       ///< starts at once
};

/// The Connection line of the request.
enum class connection_mode : std::uint32_t {
    standard = 0,    ///< the library's default, which is keep-alive
    keep_alive = 1,  ///< keep-alive
    close = 2        ///< close
};

/// How the body came.
enum class content_encoding : std::uint32_t {
    identity = 0,  ///< as it is
    gzip = 1,      ///< gzip, decoded by the library
    deflate = 2    ///< deflate, decoded by the library
};

/// A zero-terminated text that a function reads during the call: a literal, a std::string, or
/// nullptr where none is a value.
class text {
  public:
    /// No text.
    text(std::nullptr_t) noexcept {
    }
    /// A literal or another C text; null is none.
    text(const char* value) noexcept : value_(value) {
    }
    /// Up to the first zero byte in it.
    text(const std::string& value) noexcept : value_(value.c_str()) {
    }

    /// The text, or null.
    const char* get() const noexcept {
        return value_;
    }
    /// The text, or an empty one.
    const char* or_empty() const noexcept {
        return value_ != nullptr ? value_ : "";
    }

  private:
    const char* value_ = nullptr;
};

/// A proxy. The default is none, which means a direct connection.
struct proxy_settings {
    std::uint32_t type = TAV_HTTP_PROXY_NONE;  ///< one of TAV_HTTP_PROXY_
    std::string host;                          ///< name or address
    std::uint16_t port = 0;                    ///< its port, not 0
    std::optional<std::string> user_name;      ///< none: no authentication
    std::optional<std::string> password;       ///< none counts as empty
};

/// @cond
namespace detail {

// The C functions copy the record and write to none of its texts.
inline char* lend(const std::string& value) {
    return const_cast<char*>(value.c_str());
}

inline char* lend(const std::optional<std::string>& value) {
    return value ? lend(*value) : nullptr;
}

inline proxy_info lend(const proxy_settings& proxy) {
    return {proxy.type,           lend(proxy.host), proxy.port, lend(proxy.user_name),
            lend(proxy.password), nullptr};
}

inline std::string_view view(const char* value) {
    return value != nullptr ? std::string_view(value) : std::string_view();
}

inline std::uint32_t as_switch(bool value) {
    return value ? 1u : 0u;
}

inline std::int32_t as_milliseconds(std::chrono::milliseconds value) {
    constexpr std::int32_t most = std::numeric_limits<std::int32_t>::max();
    if (value.count() <= 0) {
        return 0;
    }
    return value.count() > most ? most : static_cast<std::int32_t>(value.count());
}

}  // namespace detail
/// @endcond

// ---------------------------------------------------------------------------------------- queries

/// A session without ownership: what callbacks are given. It can read results and cancel. It is
/// valid until the session is closed, inside a running callback until that returns.
class session_ref {
  public:
    /// No session: every query finds nothing.
    session_ref() noexcept = default;
    /// Refers to a session of the C functions.
    explicit session_ref(http_session* handle) noexcept : handle_(handle) {
    }

    /// The handle, for the C functions; null when there is none.
    http_session* handle() const noexcept {
        return handle_;
    }
    /// Whether there is a session.
    explicit operator bool() const noexcept {
        return handle_ != nullptr;
    }

    /// Asks the session to end; it then completes with TAV_HTTP_ERROR_CODE_CANCEL.
    std::error_code cancel() const {
        return make_error(tavHTTPCancelRequest(handle_));
    }

    /// Query 1: the HTTP status; none without a response.
    std::optional<std::uint32_t> status_code() const {
        return number<std::uint32_t>(TAV_HTTP_QUERY_STATUS_CODE);
    }
    /// Query 2: the reason beside the status.
    std::optional<std::string> status_text() const {
        return copied_text(TAV_HTTP_QUERY_STATUS_TEXT);
    }
    /// Query 3: the first byte that was asked for with session::range.
    std::int64_t option_range_start() const {
        return number<std::int64_t>(TAV_HTTP_QUERY_OPTION_RANGE_START).value_or(0);
    }
    /// Query 4: the last byte that was asked for.
    std::int64_t option_range_end() const {
        return number<std::int64_t>(TAV_HTTP_QUERY_OPTION_RANGE_END).value_or(0);
    }
    /// Query 5: a copy of the body kept in memory; none when there is none.
    std::optional<std::string> memory_body() const {
        const char* body = nullptr;
        std::int32_t length = 0;
        std::uint32_t code = query(TAV_HTTP_QUERY_MEMORY_BODY, &body, &length);
        if (code != 0 || body == nullptr) {
            return std::nullopt;
        }
        return std::string(body, static_cast<std::size_t>(length));
    }
    /// Query 6: where the downloaded file is.
    std::optional<std::string> file_path() const {
        return copied_text(TAV_HTTP_QUERY_FILE_PATH);
    }
    /// Query 7: always 0.
    std::optional<std::int64_t> query_7() const {
        return number<std::int64_t>(TAV_HTTP_QUERY_7);
    }
    /// Query 8: the values of the Set-Cookie lines.
    std::vector<std::string> set_cookie() const {
        const char* values = nullptr;
        query(TAV_HTTP_QUERY_SET_COOKIE, &values);
        return split(values);
    }
    /// Query 10: all header lines, as "name : value" with an empty line at the end.
    std::optional<std::string> raw_headers() const {
        std::int32_t length = 0;
        if (query(TAV_HTTP_QUERY_RAW_HEADERS, nullptr, &length) != 0) {
            return std::nullopt;
        }
        std::string result(static_cast<std::size_t>(length), '\0');
        query(TAV_HTTP_QUERY_RAW_HEADERS, result.data(), &length);
        return without_zero(std::move(result));
    }
    /// Query 11: the announced length; 0 when the server did not say.
    std::uint64_t content_length() const {
        return number<std::uint64_t>(TAV_HTTP_QUERY_CONTENT_LENGTH).value_or(0);
    }
    /// Query 12: the URL that the session was opened with.
    std::optional<std::string> url() const {
        return copied_text(TAV_HTTP_QUERY_URL);
    }
    /// Query 13: the URL after redirects; none before session::send.
    std::optional<std::string> current_url() const {
        return copied_text(TAV_HTTP_QUERY_CURRENT_URL);
    }
    /// Query 14: first byte, from Content-Range.
    std::optional<std::int64_t> range_start() const {
        return number<std::int64_t>(TAV_HTTP_QUERY_RANGE_START);
    }
    /// Query 15: last byte, from Content-Range.
    std::optional<std::int64_t> range_end() const {
        return number<std::int64_t>(TAV_HTTP_QUERY_RANGE_END);
    }
    /// Query 16: size of the whole resource, from Content-Range.
    std::optional<std::int64_t> range_total() const {
        return number<std::int64_t>(TAV_HTTP_QUERY_RANGE_TOTAL);
    }
    /// Query 17: Last-Modified in seconds since 1970 UTC; 0 when the server did not say.
    std::optional<std::int64_t> last_modified() const {
        return number<std::int64_t>(TAV_HTTP_QUERY_LAST_MODIFIED);
    }
    /// Query 18: the entity tag.
    std::optional<std::string> etag() const {
        return copied_text(TAV_HTTP_QUERY_ETAG);
    }
    /// Query 19: the first value of a header; letter case does not matter.
    std::optional<std::string> header(text name) const {
        std::int32_t length = 0;
        if (query_named(TAV_HTTP_QUERY_HEADER, name, nullptr, &length) != 0) {
            return std::nullopt;
        }
        std::string result(static_cast<std::size_t>(length), '\0');
        query_named(TAV_HTTP_QUERY_HEADER, name, result.data(), &length);
        return without_zero(std::move(result));
    }
    /// Query 20: bytes of the body, after decoding.
    std::uint64_t body_bytes() const {
        return number<std::uint64_t>(TAV_HTTP_QUERY_BODY_BYTES).value_or(0);
    }
    /// Query 21: how the body came.
    std::optional<tavhttp::content_encoding> content_encoding() const {
        std::optional<std::uint32_t> value = number<std::uint32_t>(TAV_HTTP_QUERY_CONTENT_ENCODING);
        if (!value) {
            return std::nullopt;
        }
        return static_cast<tavhttp::content_encoding>(*value);
    }
    /// Query 22: the body's MD5; needs session::body_md5.
    std::optional<std::array<std::uint8_t, 16>> body_md5() const {
        std::array<std::uint8_t, 16> digest{};
        if (query(TAV_HTTP_QUERY_BODY_MD5, digest.data()) != 0) {
            return std::nullopt;
        }
        return digest;
    }
    /// Query 23: the server's IP address; empty behind a proxy and before a connection.
    std::string peer_address() const {
        char address[64] = "";
        query(TAV_HTTP_QUERY_PEER_ADDRESS, address);
        return address;
    }
    /// Query 24: all values of a header that are not empty, in the order received.
    std::vector<std::string> header_all(text name) const {
        std::int32_t length = 0;
        query_named(TAV_HTTP_QUERY_HEADER_ALL, name, nullptr, &length);
        if (length <= 0) {
            return {};
        }
        std::string values(static_cast<std::size_t>(length), '\0');
        query_named(TAV_HTTP_QUERY_HEADER_ALL, name, values.data(), &length);
        return split(values.data());
    }

  protected:
    /// @cond
    http_session* handle_ = nullptr;
    /// @endcond

  private:
    std::uint32_t query(std::uint32_t id, void* out1, void* out2 = nullptr) const {
        return tavHTTPQueryInfo(handle_, id, out1, out2, nullptr);
    }

    // The name is only read.
    std::uint32_t query_named(std::uint32_t id, text name, char* out, std::int32_t* length) const {
        return tavHTTPQueryInfo(handle_, id, const_cast<char*>(name.get()), out, length);
    }

    template <typename value_type> std::optional<value_type> number(std::uint32_t id) const {
        value_type value = 0;
        if (query(id, &value) != 0) {
            return std::nullopt;
        }
        return value;
    }

    std::optional<std::string> copied_text(std::uint32_t id) const {
        const char* value = nullptr;
        if (query(id, &value) != 0 || value == nullptr) {
            return std::nullopt;
        }
        return std::string(value);
    }

    static std::string without_zero(std::string value) {
        if (!value.empty()) {
            value.pop_back();
        }
        return value;
    }

    // Texts one behind the other, each with its zero, ended by an empty one.
    static std::vector<std::string> split(const char* values) {
        std::vector<std::string> result;
        while (values != nullptr && *values != '\0') {
            result.emplace_back(values);
            values += result.back().size() + 1;
        }
        return result;
    }
};

// -------------------------------------------------------------------------------------- callbacks

/// The outcome, last of all and once. Worker thread.
using complete_function = std::function<void(session_ref, std::error_code)>;
/// Before each connection attempt, with the URL. Worker thread.
using connecting_function = std::function<void(session_ref, std::string_view)>;
/// After each connection, with the peer's address. Worker thread.
using connected_function = std::function<void(session_ref, std::string_view)>;
/// Before the first body bytes: URL, first byte, last byte, content length. Worker thread.
using download_start_function =
    std::function<void(session_ref, std::string_view, std::uint64_t, std::uint64_t, std::uint64_t)>;
/// Before a redirect is followed: new URL, current URL. Worker thread.
using redirect_function = std::function<void(session_ref, std::string_view, std::string_view)>;
/// Each run of body bytes: offset in the resource, bytes, their number. Worker thread.
using download_data_function =
    std::function<void(session_ref, std::uint64_t, const void*, std::uint32_t)>;
/// Before each piece of the request: bytes sent before it, the piece, its length, the request's
/// length. Loop thread.
using upload_progress_function =
    std::function<void(session_ref, std::uint64_t, const void*, std::uint32_t, std::uint64_t)>;
/// When the head of the final response has been read. Worker thread.
using response_header_function = std::function<void(session_ref)>;
/// A log line: level (1000 error, 2000 information, 3000 detail), tag, text. Any thread, several at
/// a time.
using log_function = std::function<void(std::int32_t, std::string_view, std::string_view)>;

/// @cond
namespace detail {

// The functions of one session. Written before the send, read by the library's threads afterwards.
struct callbacks {
    complete_function complete;
    connecting_function connecting;
    connected_function connected;
    download_start_function download_start;
    redirect_function redirect;
    download_data_function download_data;
    upload_progress_function upload_progress;
    response_header_function response_header;
};

// What the library's threads reach without a session object. A call from the library may be on its
// way while the session is closed, so the user data of a session is no pointer but a key: whoever
// finds it here holds the functions for the length of the call, whoever does not find it leaves.
struct registry {
    std::mutex lock;
    std::uintptr_t last_key = 0;
    std::unordered_map<std::uintptr_t, std::shared_ptr<callbacks>> sessions;
    // Closed while the library was not running: to be closed again after the next start.
    std::vector<http_session*> unreleased;
    std::shared_ptr<const log_function> log;
};

// Never destroyed: the library may still call while the program's own statics go.
inline registry& get_registry() {
    static registry* instance = new registry;
    return *instance;
}

// A key that is never 0.
inline std::uintptr_t add(const std::shared_ptr<callbacks>& state) {
    registry& all = get_registry();
    std::lock_guard<std::mutex> guard(all.lock);
    do {
        all.last_key++;
    } while (all.last_key == 0 || all.sessions.count(all.last_key) != 0);
    all.sessions.emplace(all.last_key, state);
    return all.last_key;
}

// The caller drops the result outside the lock: it may be the last to hold the functions, and what
// these captured may come back here.
inline std::shared_ptr<callbacks> take(std::uintptr_t key) {
    registry& all = get_registry();
    std::lock_guard<std::mutex> guard(all.lock);
    auto found = all.sessions.find(key);
    if (found == all.sessions.end()) {
        return nullptr;
    }
    std::shared_ptr<callbacks> state = std::move(found->second);
    all.sessions.erase(found);
    return state;
}

inline std::shared_ptr<callbacks> find(void* key) {
    registry& all = get_registry();
    std::lock_guard<std::mutex> guard(all.lock);
    auto found = all.sessions.find(reinterpret_cast<std::uintptr_t>(key));
    return found != all.sessions.end() ? found->second : nullptr;
}

// 0 from tavHTTPClose says that the library is not running and the handle still valid.
inline void release(http_session* handle) {
    if (tavHTTPClose(handle) == TAV_HTTP_ERROR_CODE_OK) {
        registry& all = get_registry();
        std::lock_guard<std::mutex> guard(all.lock);
        all.unreleased.push_back(handle);
    }
}

inline void release_unreleased() {
    registry& all = get_registry();
    std::vector<http_session*> handles;
    {
        std::lock_guard<std::mutex> guard(all.lock);
        handles.swap(all.unreleased);
    }
    for (http_session* handle : handles) {
        release(handle);
    }
}

inline void call_complete(http_session* session, void* key, std::uint32_t code) noexcept {
    std::shared_ptr<callbacks> state = find(key);
    if (state == nullptr) {
        return;
    }
    // The last call. All are taken out, so that functions that hold their own session's owner do
    // not keep it for ever.
    callbacks last = std::exchange(*state, callbacks());
    if (last.complete) {
        last.complete(session_ref(session), make_error(code));
    }
}

// All but the last: `field` is the function, `given` what the library passes on.
template <auto field, typename... values>
void call(http_session* session, void* key, values... given) noexcept {
    std::shared_ptr<callbacks> state = find(key);
    if (state != nullptr && (*state).*field) {
        ((*state).*field)(session_ref(session), given...);
    }
}

inline void call_log(std::int32_t level, const char* tag, const char* line) noexcept {
    std::shared_ptr<const log_function> function;
    {
        registry& all = get_registry();
        std::lock_guard<std::mutex> guard(all.lock);
        function = all.log;
    }
    if (function != nullptr) {
        (*function)(level, view(tag), view(line));
    }
}

}  // namespace detail
/// @endcond

// --------------------------------------------------------------------------------------- sessions

/// One request and its response: make it, set options, send it once, wait for on_complete. Can be
/// moved, not copied.
///
/// Options are set before send() by the thread that owns the object. They return 0, or
/// TAV_HTTP_ERROR_CODE_INVALID_ARG when the library refuses the value.
class session : public session_ref {
  public:
    /// No session.
    session() noexcept = default;

    /// A request through the default proxy (tavhttp::set_default_proxy), if there is one. The URL
    /// is checked when the session runs. Without memory the object is empty.
    session(tavhttp::method method, text url) {
        open(method, url, nullptr);
    }

    /// A request through this proxy; one of type TAV_HTTP_PROXY_NONE means a direct connection.
    session(tavhttp::method method, text url, const proxy_settings& proxy) {
        proxy_info info = detail::lend(proxy);
        open(method, url, &info);
    }

    /// Closes.
    ~session() {
        close();
    }

    session(const session&) = delete;
    session& operator=(const session&) = delete;

    /// Leaves `other` empty.
    session(session&& other) noexcept {
        swap(other);
    }

    /// Closes what was here and leaves `other` empty.
    session& operator=(session&& other) noexcept {
        if (this != &other) {
            close();
            swap(other);
        }
        return *this;
    }

    /// Exchanges the two.
    void swap(session& other) noexcept {
        std::swap(handle_, other.handle_);
        std::swap(key_, other.key_);
        state_.swap(other.state_);
    }

    /// Hands the request to the library. Once. Failures of the transfer itself come to on_complete.
    std::error_code send() {
        return make_error(tavHTTPSendRequest(handle_));
    }

    /// Releases the session; one in flight is cancelled. No callback starts after it, on_complete
    /// included. One that is running is not waited for. A session that is closed while the library
    /// is not running is released by the next tavhttp::startup.
    void close() {
        http_session* handle = std::exchange(handle_, nullptr);
        if (handle == nullptr) {
            return;
        }
        // The destructor of the functions may destroy this object: nothing is touched after it.
        std::shared_ptr<detail::callbacks> state = std::move(state_);
        std::shared_ptr<detail::callbacks> registered = detail::take(std::exchange(key_, 0));
        detail::release(handle);
    }

    /// Option 1: a redirect is the result, with code 0.
    std::error_code no_redirect(bool value = true) {
        return set(TAV_HTTP_OPTION_NO_REDIRECT, detail::as_switch(value));
    }
    /// Option 2: stored, without effect.
    std::error_code option_2(std::uint32_t value) {
        return set(TAV_HTTP_OPTION_2, value);
    }
    /// Option 3: for name resolution and connect together; 0: the default of 15 s.
    std::error_code connect_timeout(std::chrono::milliseconds value) {
        return set(TAV_HTTP_OPTION_CONNECT_TIMEOUT, detail::as_milliseconds(value));
    }
    /// Option 4: for each single send and receive; 0: the default of 30 s.
    std::error_code io_timeout(std::chrono::milliseconds value) {
        return set(TAV_HTTP_OPTION_IO_TIMEOUT, detail::as_milliseconds(value));
    }
    /// Option 5: for the whole session once it has left the queue; 0: none.
    std::error_code session_timeout(std::chrono::milliseconds value) {
        return set(TAV_HTTP_OPTION_SESSION_TIMEOUT, detail::as_milliseconds(value));
    }
    /// Option 101: downloads to this file; nullptr or "": to memory.
    std::error_code download_file(text path) {
        return set(TAV_HTTP_OPTION_DOWNLOAD_FILE, path.get());
    }
    /// Option 102: downloads to a file of the library's choosing, see file_path().
    std::error_code download_to_file(bool value = true) {
        return set(TAV_HTTP_OPTION_DOWNLOAD_TO_FILE, detail::as_switch(value));
    }
    /// Option 103: first and last byte. Last -1: to the end; (0, -n): the last n bytes, n above 1.
    std::error_code range(std::int64_t first, std::int64_t last) {
        return set(TAV_HTTP_OPTION_RANGE, first, last);
    }
    /// Option 104: seconds since 1970 UTC; 0: none.
    std::error_code if_modified_since(std::int64_t seconds) {
        return set(TAV_HTTP_OPTION_IF_MODIFIED_SINCE, seconds);
    }
    /// Option 105: an entity tag; nullptr or "": none.
    std::error_code if_none_match(text value) {
        return set(TAV_HTTP_OPTION_IF_NONE_MATCH, value.get());
    }
    /// Option 106: "name=value; name=value", sent before the stored cookies. Not empty.
    std::error_code cookie(text value) {
        return set(TAV_HTTP_OPTION_COOKIE, value.get());
    }
    /// Option 107: the Accept line; nullptr: the default.
    std::error_code accept(text value) {
        return set(TAV_HTTP_OPTION_ACCEPT, value.get());
    }
    /// Option 108: the User-Agent line; nullptr or "": the default.
    std::error_code user_agent(text value) {
        return set(TAV_HTTP_OPTION_USER_AGENT, value.get());
    }
    /// Option 109: the Connection line.
    std::error_code connection(connection_mode value) {
        return set(TAV_HTTP_OPTION_CONNECTION, static_cast<std::uint32_t>(value));
    }
    /// Option 110: sends no stored cookies.
    std::error_code no_cookie_store(bool value = true) {
        return set(TAV_HTTP_OPTION_NO_COOKIE_STORE, detail::as_switch(value));
    }
    /// Option 111: does not ask for gzip or deflate.
    std::error_code no_compression(bool value = true) {
        return set(TAV_HTTP_OPTION_NO_COMPRESSION, detail::as_switch(value));
    }
    /// Option 112: continues the file of download_file behind its present end.
    std::error_code resume(bool value = true) {
        return set(TAV_HTTP_OPTION_RESUME, detail::as_switch(value));
    }
    using session_ref::body_md5;
    /// Option 113: whether the body's MD5 is computed, for the query body_md5().
    std::error_code body_md5(bool value) {
        return set(TAV_HTTP_OPTION_BODY_MD5, detail::as_switch(value));
    }
    /// Option 114: reports and stores bodies of every status, not only of 200 and 206.
    std::error_code keep_error_body(bool value = true) {
        return set(TAV_HTTP_OPTION_KEEP_ERROR_BODY, detail::as_switch(value));
    }
    /// Option 115: the name sent to the TLS server and required of its certificate.
    std::error_code tls_host_name(text value) {
        return set(TAV_HTTP_OPTION_TLS_HOST_NAME, value.get());
    }
    /// Option 116: the Host line of the first request.
    std::error_code host(text value) {
        return set(TAV_HTTP_OPTION_HOST, value.get());
    }
    /// Option 117: the Cache-Control line.
    std::error_code cache_control(text value) {
        return set(TAV_HTTP_OPTION_CACHE_CONTROL, value.get());
    }
    /// Option 190: adds a header line. The value is taken as it is.
    std::error_code add_header(text name, text value) {
        return set(TAV_HTTP_OPTION_ADD_HEADER, name.get(), "%s", value.or_empty());
    }
    /// Option 191: adds a form field. The value is taken as it is.
    std::error_code add_form_field(text name, text value) {
        return set(TAV_HTTP_OPTION_ADD_FORM_FIELD, name.get(), "%s", value.or_empty());
    }
    /// Option 192: adds a file to the form; without `file_name` it is announced under the last part
    /// of its path.
    std::error_code add_form_file(text name, text path, text file_name = nullptr) {
        return set(TAV_HTTP_OPTION_ADD_FORM_FILE, name.get(), path.get(), file_name.get());
    }
    /// Option 193: appends bytes to the request body.
    std::error_code append_body(const void* data, std::size_t size) {
        if (!fits(size)) {
            return errc::TAV_HTTP_ERROR_CODE_INVALID_ARG;
        }
        return set(TAV_HTTP_OPTION_APPEND_BODY, data, static_cast<std::uint32_t>(size));
    }
    /// Option 193 for a text.
    std::error_code append_body(std::string_view data) {
        return append_body(data.data(), data.size());
    }
    /// Option 194: the file that is the request body; nullptr: none.
    std::error_code upload_file(text path) {
        return set(TAV_HTTP_OPTION_UPLOAD_FILE, path.get());
    }
    /// Option 195: adds bytes to the form, announced as a file.
    std::error_code add_form_data(text name, const void* data, std::size_t size, text file_name) {
        if (!fits(size)) {
            return errc::TAV_HTTP_ERROR_CODE_INVALID_ARG;
        }
        return set(TAV_HTTP_OPTION_ADD_FORM_DATA, name.get(), data, static_cast<std::int32_t>(size),
                   file_name.get());
    }
    /// Option 201: the place in the queue.
    std::error_code priority(tavhttp::priority value) {
        return set(TAV_HTTP_OPTION_PRIORITY, static_cast<std::int32_t>(value));
    }
    /// Option 202: never takes a kept-alive connection.
    std::error_code no_reuse(bool value = true) {
        return set(TAV_HTTP_OPTION_NO_REUSE, detail::as_switch(value));
    }
    /// Option 203: this proxy in place of the one that the session was opened with.
    std::error_code proxy(const proxy_settings& value) {
        const proxy_info info = detail::lend(value);
        return set(TAV_HTTP_OPTION_PROXY, &info);
    }
    /// Option 203: a direct connection, also when there is a default proxy.
    std::error_code no_proxy() {
        return set(TAV_HTTP_OPTION_PROXY, static_cast<const proxy_info*>(nullptr));
    }
    /// Option 204: queues behind the waiting sessions of its priority; default: before them.
    std::error_code queue_fifo(bool value = true) {
        return set(TAV_HTTP_OPTION_QUEUE_FIFO, detail::as_switch(value));
    }
    /// Option 205: keeps the connection afterwards, for this idle time and number of reuses; 0:
    /// what the server says, else the library's default.
    std::error_code keep_alive(bool keep, std::chrono::milliseconds idle = {},
                               std::int32_t reuses = 0) {
        return set(TAV_HTTP_OPTION_KEEP_ALIVE, detail::as_switch(keep),
                   detail::as_milliseconds(idle), reuses);
    }
    /// Option 206: log lines show "*" for the URL.
    std::error_code hide_url(bool value = true) {
        return set(TAV_HTTP_OPTION_HIDE_URL, detail::as_switch(value));
    }
    /// Option 207: keeps the raw body when decoding fails. It sets what no_cookie_store sets too.
    std::error_code keep_undecoded_body(bool value, bool without_stored_cookies) {
        return set(TAV_HTTP_OPTION_KEEP_UNDECODED_BODY, detail::as_switch(value),
                   detail::as_switch(without_stored_cookies));
    }

    /// Option 901. An empty function clears, here and below.
    std::error_code on_connecting(connecting_function function) {
        return install<&detail::callbacks::connecting, connecting_callback>(
            TAV_HTTP_OPTION_CONNECTING_CALLBACK, std::move(function));
    }
    /// Option 902.
    std::error_code on_connected(connected_function function) {
        return install<&detail::callbacks::connected, connected_callback>(
            TAV_HTTP_OPTION_CONNECTED_CALLBACK, std::move(function));
    }
    /// Option 903.
    std::error_code on_download_start(download_start_function function) {
        return install<&detail::callbacks::download_start, download_start_callback>(
            TAV_HTTP_OPTION_DOWNLOAD_START_CALLBACK, std::move(function));
    }
    /// Option 904.
    std::error_code on_redirect(redirect_function function) {
        return install<&detail::callbacks::redirect, redirect_callback>(
            TAV_HTTP_OPTION_REDIRECT_CALLBACK, std::move(function));
    }
    /// Option 906. The body is not kept in memory then.
    std::error_code on_download_data(download_data_function function) {
        return install<&detail::callbacks::download_data, download_data_callback>(
            TAV_HTTP_OPTION_DOWNLOAD_DATA_CALLBACK, std::move(function));
    }
    /// Option 907. Without it nobody learns of the end. The function may close the session or
    /// destroy its owner; all functions of the session are dropped when it has run.
    std::error_code on_complete(complete_function function) {
        return install_as<complete_callback>(TAV_HTTP_OPTION_COMPLETE_CALLBACK,
                                             &detail::callbacks::complete, std::move(function),
                                             detail::call_complete);
    }
    /// Option 908.
    std::error_code on_upload_progress(upload_progress_function function) {
        return install<&detail::callbacks::upload_progress, upload_progress_callback>(
            TAV_HTTP_OPTION_UPLOAD_PROGRESS_CALLBACK, std::move(function));
    }
    /// Option 909.
    std::error_code on_response_header(response_header_function function) {
        return install<&detail::callbacks::response_header, response_header_callback>(
            TAV_HTTP_OPTION_RESPONSE_HEADER_CALLBACK, std::move(function));
    }

  private:
    void open(tavhttp::method method, text url, const proxy_info* proxy) {
        state_ = std::make_shared<detail::callbacks>();
        key_ = detail::add(state_);
        handle_ = tavHTTPOpen(static_cast<std::uint32_t>(method), url.get(), proxy,
                              reinterpret_cast<void*>(key_), detail::call_complete);
        if (handle_ == nullptr) {
            detail::take(std::exchange(key_, 0));
            state_.reset();
        }
    }

    template <typename... values> std::error_code set(std::uint32_t option, values... given) {
        return make_error(tavHTTPSetOption(handle_, option, given...));
    }

    template <auto field, typename c_callback, typename function_type>
    std::error_code install(std::uint32_t option, function_type function) {
        return install_as<c_callback>(option, field, std::move(function), detail::call<field>);
    }

    // The pointer has the C type, as which the library reads it.
    template <typename c_callback, typename function_type>
    std::error_code install_as(std::uint32_t option, function_type detail::callbacks::*field,
                               function_type function, c_callback call) {
        if (handle_ == nullptr) {
            return errc::TAV_HTTP_ERROR_CODE_INVALID_ARG;
        }
        c_callback given = function ? call : nullptr;
        (*state_).*field = std::move(function);
        return set(option, given);
    }

    // The library counts bytes in 31 bits.
    static bool fits(std::size_t size) {
        return size <= static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max());
    }

    std::uintptr_t key_ = 0;
    std::shared_ptr<detail::callbacks> state_;
};

// ------------------------------------------------------------------------ start-up and shut-down

/// Starts the library, or counts one more user of it; needs a shutdown() in either case. Never two
/// of these at a time.
inline std::error_code startup() {
    std::uint32_t code = tavHTTPStartup();
    if (code == TAV_HTTP_ERROR_CODE_OK) {
        detail::release_unreleased();
    }
    return make_error(code);
}

/// Takes back one startup(); the last one ends every session and waits. Not inside a callback.
inline void shutdown() {
    tavHTTPShutdown();
}

/// Keeps the library started while it lives. Declare it before the sessions.
class library {
  public:
    /// Starts; see error().
    library() : error_(startup()) {
    }
    /// Shuts down.
    ~library() {
        shutdown();
    }
    library(const library&) = delete;
    library& operator=(const library&) = delete;

    /// The result of the start.
    std::error_code error() const noexcept {
        return error_;
    }

  private:
    std::error_code error_;
};

// ------------------------------------------------------------------------ settings of the process

/// Installs the receiver of log lines; an empty function turns logging off. A line that is being
/// written goes to either receiver; the old one lives until it has been taken.
inline void set_log(log_function function) {
    bool on = static_cast<bool>(function);
    std::shared_ptr<const log_function> replacement;
    if (on) {
        replacement = std::make_shared<const log_function>(std::move(function));
    }
    detail::registry& all = detail::get_registry();
    {
        std::lock_guard<std::mutex> guard(all.lock);
        all.log.swap(replacement);
    }
    tavHTTPSetLogCallback(on ? detail::call_log : nullptr);
}

/// Sessions that run at once, for downloads and uploads each: 3 to 9; 0 means 6.
inline void set_max_running_count(std::uint32_t count) {
    tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, count);
}

/// Reuses of a kept-alive connection; 0: no limit.
inline void set_keep_alive_max_requests(std::uint32_t count) {
    tavHTTPSetConfig(TAV_HTTP_CONFIG_KEEP_ALIVE_MAX_REQUESTS, count);
}

/// The proxy of sessions opened from now on. Needs a started library.
inline std::error_code set_default_proxy(const proxy_settings& proxy) {
    proxy_info info = detail::lend(proxy);
    return make_error(tavHTTPSetDefaultProxy(&info));
}

/// Takes the default proxy away. Needs a started library.
inline std::error_code clear_default_proxy() {
    return make_error(tavHTTPSetDefaultProxy(nullptr));
}

/// Where the files of session::download_to_file go; nullptr or "": the system's directory for
/// temporary files. Needs a started library.
inline std::error_code set_download_directory(text directory) {
    return make_error(tavHTTPSetDownloadDirectory(directory.get()));
}

/// The directory that was set, with a slash at its end; empty when none is.
inline std::string download_directory() {
    std::string result(1, '\0');
    for (;;) {
        std::int32_t given = static_cast<std::int32_t>(result.size());
        std::int32_t length = given;
        tavHTTPGetDownloadDirectory(result.data(), &length);
        result.resize(static_cast<std::size_t>(length));
        if (length <= given) {
            // The final zero is counted, and no copy was made before it fitted.
            result.resize(std::strlen(result.c_str()));
            return result;
        }
    }
}

/// Whether new sockets go through layered service providers. Needs a started library.
inline std::error_code set_use_third_lsp(bool use) {
    return make_error(tavHTTPSetUseThirdLSP(use ? 1 : 0));
}

}  // namespace tavhttp

#endif
