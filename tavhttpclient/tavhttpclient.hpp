/// @file
/// tavHTTPClient for C++17: the same functions with types. Header only, on top of tavhttpclient.h.
///
/// - Every option is a member function of tavhttp::session that takes its value in the right width,
///   so that no int is passed where 64 bits are read.
/// - Callbacks are std::function; queries return values; codes are std::error_code, whose messages
///   are words.
/// - tavhttp::client is the short way: client.get(url) waits and gives a tavhttp::result.
/// - A session closes itself. It may be destroyed at any moment and on any thread, inside its own
///   callbacks too. No callback starts after that; one that is running on another thread goes on,
///   and the functions that it was given live until it returns. So capture by value, or by
///   std::shared_ptr, what a callback may need after the session's end.
///
/// Nothing here throws on its own account; running out of memory does what it does in the standard
/// library. A callback that throws ends the program: it is called from C code.
#ifndef TAVHTTPCLIENT_TAVHTTPCLIENT_HPP
#define TAVHTTPCLIENT_TAVHTTPCLIENT_HPP

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <set>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "tavhttpclient/tavhttpclient_typed.h"

/// The C++ layer.
namespace tavhttp {

// ------------------------------------------------------------------------------------ error codes

/// The codes: `code == tavhttp::errc::cancel`. They compare equal to the std::error_code that
/// functions and callbacks give; the names of the C header serve too.
enum class errc : std::uint32_t {
/// @cond
#define TAV_HTTP_ERROR_ENUM(name, value, text) name = value,
    TAV_HTTP_ERROR_TEXTS(TAV_HTTP_ERROR_ENUM)
#undef TAV_HTTP_ERROR_ENUM
#define TAV_HTTP_ERROR_CODE_ENUM(name, value) name = value,
    TAV_HTTP_ERROR_CODE_MAP(TAV_HTTP_ERROR_CODE_ENUM)
#undef TAV_HTTP_ERROR_CODE_ENUM
    /// @endcond
};

/// @cond
namespace detail {

// Only where the two say the same: a connect that failed may have found no name, nothing that
// listens, or no time.
inline std::optional<std::errc> standard_condition(errc code) noexcept {
    switch (code) {
    case errc::cancel:
        return std::errc::operation_canceled;
    case errc::session_timeout:
    case errc::dns_timeout:
    case errc::recv_timeout:
    case errc::send_timeout:
        return std::errc::timed_out;
    case errc::out_of_memory:
        return std::errc::not_enough_memory;
    case errc::invalid_url:
    case errc::invalid_arg:
    case errc::invalid_proxy:
    case errc::invalid_form_data:
    case errc::invalid_request_header:
        return std::errc::invalid_argument;
    case errc::buffer_too_small:
        return std::errc::no_buffer_space;
    case errc::not_support_https:
    case errc::proxy_type_not_support:
        return std::errc::protocol_not_supported;
    case errc::method_not_support:
        return std::errc::not_supported;
    case errc::invalid_content_length:
    case errc::content_encoding_not_support:
    case errc::fail_decode_content:
    case errc::fail_parse_response:
        return std::errc::bad_message;
    case errc::connect_proxy_svr_deny:
        return std::errc::permission_denied;
    case errc::fail_write_response_file:
    case errc::fail_read_upload_file:
        return std::errc::io_error;
    default:
        return std::nullopt;
    }
}

class error_category : public std::error_category {
  public:
    const char* name() const noexcept override {
        return "tavhttp";
    }

    std::string message(int value) const override {
        return tav_http_error_text(static_cast<std::uint32_t>(value));
    }

    std::error_condition default_error_condition(int value) const noexcept override {
        std::optional<std::errc> found = standard_condition(static_cast<errc>(value));
        return found ? std::make_error_condition(*found) : std::error_condition(value, *this);
    }
};

}  // namespace detail
/// @endcond

/// The category of all codes. A code's message says in words what happened; where a std::errc says
/// the same, the code compares equal to it: `code == std::errc::timed_out`.
[[nodiscard]] inline const std::error_category& category() noexcept {
    static const detail::error_category instance;
    return instance;
}

/// A code of the C functions as std::error_code. Mind that errc::not_modified is not 0 and so
/// counts as an error.
[[nodiscard]] inline std::error_code make_error(std::uint32_t code) noexcept {
    return std::error_code(static_cast<int>(code), category());
}

/// Lets a tavhttp::errc become a std::error_code by itself.
[[nodiscard]] inline std::error_code make_error_code(errc code) noexcept {
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

/// Which redirects are followed.
enum class redirect_policy {
    follow,           ///< all, with everything that was set; the library's default
    same_host,        ///< those to the same host at any port, not from https to http; another is
                      ///< the result
    without_headers,  ///< others too, but without the headers, cookies and Host line that were set,
                      ///< the body goes along; by tavhttp::client alone: a session stops as with
                      ///< same_host
    none              ///< none: a redirect is the result
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
    [[nodiscard]] http_session* handle() const noexcept {
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
    [[nodiscard]] std::optional<std::uint32_t> status_code() const {
        return number<std::uint32_t>(TAV_HTTP_QUERY_STATUS_CODE);
    }
    /// Query 2: the reason beside the status.
    [[nodiscard]] std::optional<std::string> status_text() const {
        return copied_text(TAV_HTTP_QUERY_STATUS_TEXT);
    }
    /// Query 3: the first byte that was asked for with session::range.
    [[nodiscard]] std::int64_t option_range_start() const {
        return number<std::int64_t>(TAV_HTTP_QUERY_OPTION_RANGE_START).value_or(0);
    }
    /// Query 4: the last byte that was asked for.
    [[nodiscard]] std::int64_t option_range_end() const {
        return number<std::int64_t>(TAV_HTTP_QUERY_OPTION_RANGE_END).value_or(0);
    }
    /// Query 5: a copy of the body kept in memory; none when there is none.
    [[nodiscard]] std::optional<std::string> memory_body() const {
        const char* body = nullptr;
        std::int32_t length = 0;
        std::uint32_t code = query(TAV_HTTP_QUERY_MEMORY_BODY, &body, &length);
        if (code != 0 || body == nullptr) {
            return std::nullopt;
        }
        return std::string(body, static_cast<std::size_t>(length));
    }
    /// Query 6: where the downloaded file is.
    [[nodiscard]] std::optional<std::string> file_path() const {
        return copied_text(TAV_HTTP_QUERY_FILE_PATH);
    }
    /// Query 7: always 0.
    [[nodiscard]] std::optional<std::int64_t> query_7() const {
        return number<std::int64_t>(TAV_HTTP_QUERY_7);
    }
    /// Query 8: the values of the Set-Cookie lines.
    [[nodiscard]] std::vector<std::string> set_cookie() const {
        const char* values = nullptr;
        query(TAV_HTTP_QUERY_SET_COOKIE, &values);
        return split(values);
    }
    /// Query 10: all header lines, as "name : value" with an empty line at the end.
    [[nodiscard]] std::optional<std::string> raw_headers() const {
        std::int32_t length = 0;
        if (query(TAV_HTTP_QUERY_RAW_HEADERS, nullptr, &length) != 0) {
            return std::nullopt;
        }
        std::string result(static_cast<std::size_t>(length), '\0');
        query(TAV_HTTP_QUERY_RAW_HEADERS, result.data(), &length);
        return without_zero(std::move(result));
    }
    /// Query 11: the announced length; 0 when the server did not say.
    [[nodiscard]] std::uint64_t content_length() const {
        return number<std::uint64_t>(TAV_HTTP_QUERY_CONTENT_LENGTH).value_or(0);
    }
    /// Query 12: the URL that the session was opened with.
    [[nodiscard]] std::optional<std::string> url() const {
        return copied_text(TAV_HTTP_QUERY_URL);
    }
    /// Query 13: the URL after redirects; none before session::send.
    [[nodiscard]] std::optional<std::string> current_url() const {
        return copied_text(TAV_HTTP_QUERY_CURRENT_URL);
    }
    /// Query 14: first byte, from Content-Range.
    [[nodiscard]] std::optional<std::int64_t> range_start() const {
        return number<std::int64_t>(TAV_HTTP_QUERY_RANGE_START);
    }
    /// Query 15: last byte, from Content-Range.
    [[nodiscard]] std::optional<std::int64_t> range_end() const {
        return number<std::int64_t>(TAV_HTTP_QUERY_RANGE_END);
    }
    /// Query 16: size of the whole resource, from Content-Range.
    [[nodiscard]] std::optional<std::int64_t> range_total() const {
        return number<std::int64_t>(TAV_HTTP_QUERY_RANGE_TOTAL);
    }
    /// Query 17: Last-Modified in seconds since 1970 UTC; 0 when the server did not say.
    [[nodiscard]] std::optional<std::int64_t> last_modified() const {
        return number<std::int64_t>(TAV_HTTP_QUERY_LAST_MODIFIED);
    }
    /// Query 18: the entity tag.
    [[nodiscard]] std::optional<std::string> etag() const {
        return copied_text(TAV_HTTP_QUERY_ETAG);
    }
    /// Query 19: the first value of a header; letter case does not matter.
    [[nodiscard]] std::optional<std::string> header(text name) const {
        std::int32_t length = 0;
        if (query_named(TAV_HTTP_QUERY_HEADER, name, nullptr, &length) != 0) {
            return std::nullopt;
        }
        std::string result(static_cast<std::size_t>(length), '\0');
        query_named(TAV_HTTP_QUERY_HEADER, name, result.data(), &length);
        return without_zero(std::move(result));
    }
    /// Query 20: bytes of the body, after decoding.
    [[nodiscard]] std::uint64_t body_bytes() const {
        return number<std::uint64_t>(TAV_HTTP_QUERY_BODY_BYTES).value_or(0);
    }
    /// Query 21: how the body came.
    [[nodiscard]] std::optional<tavhttp::content_encoding> content_encoding() const {
        std::optional<std::uint32_t> value = number<std::uint32_t>(TAV_HTTP_QUERY_CONTENT_ENCODING);
        if (!value) {
            return std::nullopt;
        }
        return static_cast<tavhttp::content_encoding>(*value);
    }
    /// Query 22: the body's MD5; needs session::body_md5.
    [[nodiscard]] std::optional<std::array<std::uint8_t, 16>> body_md5() const {
        std::array<std::uint8_t, 16> digest{};
        if (query(TAV_HTTP_QUERY_BODY_MD5, digest.data()) != 0) {
            return std::nullopt;
        }
        return digest;
    }
    /// Query 23: the server's IP address; empty behind a proxy and before a connection.
    [[nodiscard]] std::string peer_address() const {
        char address[64] = "";
        query(TAV_HTTP_QUERY_PEER_ADDRESS, address);
        return address;
    }
    /// Query 24: all values of a header that are not empty, in the order received.
    [[nodiscard]] std::vector<std::string> header_all(text name) const {
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

// ---------------------------------------------------------------------------------------- results

/// @cond
namespace detail {

inline char lower(char value) {
    return value >= 'A' && value <= 'Z' ? static_cast<char>(value - 'A' + 'a') : value;
}

inline bool is_same_name(std::string_view name, std::string_view other) {
    return std::equal(name.begin(), name.end(), other.begin(), other.end(),
                      [](char a, char b) { return lower(a) == lower(b); });
}

}  // namespace detail
/// @endcond

/// A finished transfer, with nothing behind it.
struct [[nodiscard]] result {
    std::error_code code;      ///< the outcome; 0 is success
    std::uint32_t status = 0;  ///< the HTTP status; 0 without a response
    std::string reason;        ///< the text beside the status
    std::string url;           ///< where it ended, after redirects
    std::vector<std::pair<std::string, std::string>> headers;  ///< in the order received
    std::string body;                                          ///< when it was kept in memory
    std::string file_path;                                     ///< when it went to a file

    /// Whether it succeeded.
    explicit operator bool() const noexcept {
        return !code;
    }

    /// The first value of a header; letter case does not matter.
    [[nodiscard]] std::optional<std::string> header(std::string_view name) const {
        for (const auto& each : headers) {
            if (detail::is_same_name(each.first, name)) {
                return each.second;
            }
        }
        return std::nullopt;
    }

    /// What happened, in words; a refusal with its status.
    [[nodiscard]] std::string message() const {
        return code == errc::svr_return_error
                   ? "the server answered " + std::to_string(status) + " " + reason
                   : code.message();
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
/// Takes a body piece by piece, in order. Worker thread.
struct body_sink {
    /// Before each attempt: the first, and a retry or redirect, which begins anew; what was written
    /// is void. False ends the session.
    std::function<bool()> begin;
    /// A piece. False ends the session with errc::fail_write_response_file.
    std::function<bool(std::string_view)> write;
    /// Whether `begin` removes what was written. Where it does not, a shorter body is an error.
    bool truncates = true;
};
/// When the head of the final response has been read. Worker thread.
using response_header_function = std::function<void(session_ref)>;
/// A log line: level (1000 error, 2000 information, 3000 detail), tag, text. Any thread, several at
/// a time.
using log_function = std::function<void(std::int32_t, std::string_view, std::string_view)>;

/// @cond
namespace detail {

inline result read_result(session_ref session, std::error_code code) {
    result read;
    read.code = code;
    read.status = session.status_code().value_or(0);
    read.reason = session.status_text().value_or("");
    read.url = session.current_url().value_or("");
    read.body = session.memory_body().value_or("");
    read.file_path = session.file_path().value_or("");
    const std::string lines = session.raw_headers().value_or("");
    for (std::size_t begin = 0, end; begin < lines.size(); begin = end + 2) {
        end = std::min(lines.find("\r\n", begin), lines.size());
        std::size_t colon = lines.find(" : ", begin);
        if (colon < end) {
            read.headers.emplace_back(lines.substr(begin, colon - begin),
                                      lines.substr(colon + 3, end - colon - 3));
        }
    }
    return read;
}

// A redirect that was not followed: where it led, and the response that asked for it.
struct stopped_redirect {
    std::string url;
    result response;
};

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
    body_sink sink;
    bool has_sink = false;
    bool sink_failed = false;
    std::uint64_t sink_bytes = 0;               // since it began
    std::uint64_t sink_most = 0;                // of all attempts
    std::shared_ptr<stopped_redirect> stopped;  // null: all redirects are followed
};

template <auto field, auto other>
constexpr bool is_field = std::is_same_v<std::integral_constant<decltype(field), field>,
                                         std::integral_constant<decltype(other), other>>;

// Whether the host or the layer itself has something to do in this callback.
template <auto field> bool is_wanted(const callbacks& functions) {
    bool sinks =
        is_field<field, &callbacks::connecting> || is_field<field, &callbacks::download_data>;
    return functions.*field || (sinks && functions.has_sink) ||
           (is_field<field, &callbacks::redirect> && functions.stopped != nullptr);
}

// What a session gives the library as its user data. A call from the library may be on its way
// while the session is closed, so slots are never freed but used again, and a call names its
// session: that of a late one is not there any more, and no other can have its address, since the
// library releases a session behind its last call.
struct slot {
    std::mutex lock;
    http_session* handle = nullptr;        // null: closed
    std::uint32_t users = 0;               // calls that are running
    std::unique_ptr<callbacks> functions;  // theirs while there are any
    slot* next = nullptr;                  // of those that are free
};

// What the library's threads reach without a session object.
struct registry {
    std::mutex lock;
    slot* free_slots = nullptr;
    // Closed while the library was not running: to be closed again after the next start.
    std::vector<http_session*> unreleased;
    std::shared_mutex log_lock;
    std::shared_ptr<const log_function> log;
};

// Never destroyed: the library may still call while the program's own statics go.
inline registry& get_registry() {
    static registry* instance = new registry;
    return *instance;
}

inline slot* take_slot() {
    registry& all = get_registry();
    {
        std::lock_guard<std::mutex> guard(all.lock);
        if (all.free_slots != nullptr) {
            return std::exchange(all.free_slots, all.free_slots->next);
        }
    }
    return new slot;
}

inline void give_back(slot* free_slot) {
    registry& all = get_registry();
    std::lock_guard<std::mutex> guard(all.lock);
    free_slot->next = std::exchange(all.free_slots, free_slot);
}

// A call goes in, unless the session was closed meanwhile.
inline bool enter(slot* entered, http_session* session) {
    std::lock_guard<std::mutex> guard(entered->lock);
    if (entered->handle != session || entered->functions == nullptr) {
        return false;
    }
    entered->users++;
    return true;
}

// The last one out of a closed session drops its functions, outside the lock: what these captured
// may come back here.
inline void leave(slot* entered) {
    std::unique_ptr<callbacks> dropped;
    {
        std::lock_guard<std::mutex> guard(entered->lock);
        if (--entered->users != 0 || entered->handle != nullptr) {
            return;
        }
        dropped = std::move(entered->functions);
    }
    give_back(entered);
}

// No call comes in from here on. The functions, unless a running call has them still.
inline std::unique_ptr<callbacks> close(slot* closed) {
    std::unique_ptr<callbacks> dropped;
    {
        std::lock_guard<std::mutex> guard(closed->lock);
        closed->handle = nullptr;
        if (closed->users != 0) {
            return dropped;
        }
        dropped = std::move(closed->functions);
    }
    give_back(closed);
    return dropped;
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

// The host that a URL of the library connects to; empty where another reader of URLs could find
// another one.
inline std::string_view host_of(std::string_view url) {
    std::size_t begin = url.find("://");
    if (begin == std::string_view::npos) {
        return {};
    }
    std::string_view host = url.substr(begin + 3);
    host = host.substr(0, host.find('/'));
    if (host.find_first_of("?#@\\") != std::string_view::npos) {
        return {};
    }
    std::size_t bracket = host.find(']');
    return host.substr(0, host.find(':', bracket == std::string_view::npos ? 0 : bracket));
}

inline bool is_same_host(std::string_view url, std::string_view current) {
    bool is_weaker = current.substr(0, 6) == "https:" && url.substr(0, 6) != "https:";
    return !is_weaker && !host_of(url).empty() && is_same_name(host_of(url), host_of(current));
}

// A sink that takes no more ends the session.
inline void check_sink(callbacks& functions, http_session* session, bool is_well) {
    if (!is_well) {
        functions.sink_failed = true;
        tavHTTPCancelRequest(session);
    }
}

// What the layer does itself before the host's function; false: that is not called.
template <auto field, typename... values>
bool prepare(callbacks& functions, http_session* session, values... given) {
    [[maybe_unused]] auto all = std::make_tuple(given...);
    if constexpr (is_field<field, &callbacks::connecting>) {
        if (functions.has_sink && (functions.sink_bytes > 0 || functions.sink_most == 0)) {
            functions.sink_bytes = 0;
            check_sink(functions, session, !functions.sink.begin || functions.sink.begin());
        }
    }
    if constexpr (is_field<field, &callbacks::download_data>) {
        if (functions.has_sink && !functions.sink_failed) {
            std::string_view data(static_cast<const char*>(std::get<1>(all)), std::get<2>(all));
            functions.sink_bytes += data.size();
            functions.sink_most = std::max(functions.sink_most, functions.sink_bytes);
            check_sink(functions, session, functions.sink.write(data));
        }
    }
    if constexpr (is_field<field, &callbacks::redirect>) {
        if (functions.stopped && !is_same_host(std::get<0>(all), std::get<1>(all))) {
            functions.stopped->url = std::get<0>(all);
            functions.stopped->response = read_result(session_ref(session), {});
            tavHTTPCancelRequest(session);
            return false;
        }
    }
    return true;
}

// All but the last: `field` is the function, `given` what the library passes on.
template <auto field, typename... values>
void call(http_session* session, void* user_data, values... given) noexcept {
    slot* entered = static_cast<slot*>(user_data);
    if (!enter(entered, session)) {
        return;
    }
    callbacks& functions = *entered->functions;
    if (prepare<field>(functions, session, given...) && functions.*field) {
        (functions.*field)(session_ref(session), given...);
    }
    leave(entered);
}

// The outcome, as the layer's own stops of the session make it.
inline errc outcome(const callbacks& functions, errc code) {
    if (code == errc::cancel && functions.sink_failed) {
        return errc::fail_write_response_file;
    }
    bool is_cut = functions.has_sink && !functions.sink.truncates &&
                  functions.sink_bytes < functions.sink_most;
    return code == errc::ok && is_cut ? errc::fail_write_response_file : code;
}

inline void call_complete(http_session* session, void* user_data, std::uint32_t code) noexcept {
    slot* entered = static_cast<slot*>(user_data);
    if (!enter(entered, session)) {
        return;
    }
    {
        // The last call. All are taken out, so that functions that hold their own session's owner
        // do not keep it for ever.
        std::unique_ptr<callbacks> last = std::move(entered->functions);
        if (last->complete) {
            last->complete(session_ref(session), outcome(*last, static_cast<errc>(code)));
        }
    }
    leave(entered);
}

inline void call_log(std::int32_t level, const char* tag, const char* line) noexcept {
    std::shared_ptr<const log_function> function;
    {
        registry& all = get_registry();
        std::shared_lock<std::shared_mutex> guard(all.log_lock);
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
/// errc::invalid_arg when the library refuses the value.
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
        std::swap(slot_, other.slot_);
        std::swap(policy_, other.policy_);
        std::swap(is_stripped_, other.is_stripped_);
    }

    /// Hands the request to the library. Once. Failures of the transfer itself come to on_complete.
    [[nodiscard]] std::error_code send() {
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
        std::unique_ptr<detail::callbacks> dropped = detail::close(std::exchange(slot_, nullptr));
        detail::release(handle);
    }

    /// Option 1: a redirect is the result, with code 0.
    std::error_code no_redirect(bool value = true) {
        return set<tav_http_set_no_redirect>(detail::as_switch(value));
    }
    /// Option 2: stored, without effect.
    std::error_code option_2(std::uint32_t value) {
        return set<tav_http_set_option_2>(value);
    }
    /// Option 3: for name resolution and connect together; 0: the default of 15 s.
    std::error_code connect_timeout(std::chrono::milliseconds value) {
        return set<tav_http_set_connect_timeout>(detail::as_milliseconds(value));
    }
    /// Option 4: for each single send and receive; 0: the default of 30 s.
    std::error_code io_timeout(std::chrono::milliseconds value) {
        return set<tav_http_set_io_timeout>(detail::as_milliseconds(value));
    }
    /// Option 5: for the whole session once it has left the queue; 0: none.
    std::error_code session_timeout(std::chrono::milliseconds value) {
        return set<tav_http_set_session_timeout>(detail::as_milliseconds(value));
    }
    /// Option 101: downloads to this file; nullptr or "": to memory.
    std::error_code download_file(text path) {
        return set<tav_http_set_download_file>(path.get());
    }
    /// Option 102: downloads to a file of the library's choosing, see file_path().
    std::error_code download_to_file(bool value = true) {
        return set<tav_http_set_download_to_file>(detail::as_switch(value));
    }
    /// Option 103: first and last byte. Last -1: to the end; (0, -n): the last n bytes, n above 1.
    std::error_code range(std::int64_t first, std::int64_t last) {
        return set<tav_http_set_range>(first, last);
    }
    /// Option 104: seconds since 1970 UTC; 0: none.
    std::error_code if_modified_since(std::int64_t seconds) {
        return set<tav_http_set_if_modified_since>(seconds);
    }
    /// Option 105: an entity tag; nullptr or "": none.
    std::error_code if_none_match(text value) {
        return set<tav_http_set_if_none_match>(value.get());
    }
    /// Option 106: "name=value; name=value", sent before the stored cookies. Not empty.
    std::error_code cookie(text value) {
        if (is_stripped_) {
            return {};
        }
        return set<tav_http_set_cookie>(value.get());
    }
    /// Option 107: the Accept line; nullptr: the default.
    std::error_code accept(text value) {
        return set<tav_http_set_accept>(value.get());
    }
    /// Option 108: the User-Agent line; nullptr or "": the default.
    std::error_code user_agent(text value) {
        return set<tav_http_set_user_agent>(value.get());
    }
    /// Option 109: the Connection line.
    std::error_code connection(connection_mode value) {
        return set<tav_http_set_connection>(static_cast<std::uint32_t>(value));
    }
    /// Option 110: sends no stored cookies.
    std::error_code no_cookie_store(bool value = true) {
        return set<tav_http_set_no_cookie_store>(detail::as_switch(value));
    }
    /// Option 111: does not ask for gzip or deflate.
    std::error_code no_compression(bool value = true) {
        return set<tav_http_set_no_compression>(detail::as_switch(value));
    }
    /// Option 112: continues the file of download_file behind its present end.
    std::error_code resume(bool value = true) {
        return set<tav_http_set_resume>(detail::as_switch(value));
    }
    using session_ref::body_md5;
    /// Option 113: whether the body's MD5 is computed, for the query body_md5().
    std::error_code body_md5(bool value) {
        return set<tav_http_set_body_md5>(detail::as_switch(value));
    }
    /// Option 114: reports and stores bodies of every status, not only of 200 and 206.
    std::error_code keep_error_body(bool value = true) {
        return set<tav_http_set_keep_error_body>(detail::as_switch(value));
    }
    /// Option 115: the name sent to the TLS server and required of its certificate.
    std::error_code tls_host_name(text value) {
        return set<tav_http_set_tls_host_name>(value.get());
    }
    /// Option 116: the Host line of the first request.
    std::error_code host(text value) {
        if (is_stripped_) {
            return {};
        }
        return set<tav_http_set_host>(value.get());
    }
    /// Option 117: the Cache-Control line.
    std::error_code cache_control(text value) {
        return set<tav_http_set_cache_control>(value.get());
    }
    /// Option 190: adds a header line. The value is taken as it is.
    std::error_code add_header(text name, text value) {
        if (is_stripped_) {
            return {};
        }
        return set<tav_http_add_header>(name.get(), value.or_empty());
    }
    /// Option 191: adds a form field. The value is taken as it is.
    std::error_code add_form_field(text name, text value) {
        return set<tav_http_add_form_field>(name.get(), value.or_empty());
    }
    /// Option 192: adds a file to the form; without `file_name` it is announced under the last part
    /// of its path.
    std::error_code add_form_file(text name, text path, text file_name = nullptr) {
        return set<tav_http_add_form_file>(name.get(), path.get(), file_name.get());
    }
    /// Option 193: appends bytes to the request body.
    std::error_code append_body(const void* data, std::size_t size) {
        if (!fits(size)) {
            return errc::invalid_arg;
        }
        return set<tav_http_append_body>(data, static_cast<std::uint32_t>(size));
    }
    /// Option 193 for a text.
    std::error_code append_body(std::string_view data) {
        return append_body(data.data(), data.size());
    }
    /// Option 194: the file that is the request body; nullptr: none.
    std::error_code upload_file(text path) {
        return set<tav_http_set_upload_file>(path.get());
    }
    /// Option 195: adds bytes to the form, announced as a file.
    std::error_code add_form_data(text name, const void* data, std::size_t size, text file_name) {
        if (!fits(size)) {
            return errc::invalid_arg;
        }
        return set<tav_http_add_form_data>(name.get(), data, static_cast<std::int32_t>(size),
                                           file_name.get());
    }
    /// Option 201: the place in the queue.
    std::error_code priority(tavhttp::priority value) {
        return set<tav_http_set_priority>(static_cast<std::int32_t>(value));
    }
    /// Option 202: never takes a kept-alive connection.
    std::error_code no_reuse(bool value = true) {
        return set<tav_http_set_no_reuse>(detail::as_switch(value));
    }
    /// Option 203: this proxy in place of the one that the session was opened with.
    std::error_code proxy(const proxy_settings& value) {
        const proxy_info info = detail::lend(value);
        return set<tav_http_set_proxy>(&info);
    }
    /// Option 203: a direct connection, also when there is a default proxy.
    std::error_code no_proxy() {
        return set<tav_http_set_proxy>(static_cast<const proxy_info*>(nullptr));
    }
    /// Option 204: queues behind the waiting sessions of its priority; default: before them.
    std::error_code queue_fifo(bool value = true) {
        return set<tav_http_set_queue_fifo>(detail::as_switch(value));
    }
    /// Option 205: keeps the connection afterwards, for this idle time and number of reuses; 0:
    /// what the server says, else the library's default.
    std::error_code keep_alive(bool keep, std::chrono::milliseconds idle = {},
                               std::int32_t reuses = 0) {
        return set<tav_http_set_keep_alive>(detail::as_switch(keep), detail::as_milliseconds(idle),
                                            reuses);
    }
    /// Which redirects are followed. For tavhttp::client, whose result is the redirect then: a
    /// session by itself ends with errc::cancel in place of going to another host.
    std::error_code redirects(redirect_policy policy) {
        policy_ = policy;
        if (!has_functions()) {
            return errc::invalid_arg;
        }
        bool stops =
            policy == redirect_policy::same_host || policy == redirect_policy::without_headers;
        functions().stopped = stops ? std::make_shared<detail::stopped_redirect>() : nullptr;
        no_redirect(policy == redirect_policy::none);
        return hook<&detail::callbacks::redirect, tav_http_set_redirect>();
    }
    /// Option 206: log lines show "*" for the URL.
    std::error_code hide_url(bool value = true) {
        return set<tav_http_set_hide_url>(detail::as_switch(value));
    }
    /// Option 207: keeps the raw body when decoding fails. It sets what no_cookie_store sets too.
    std::error_code keep_undecoded_body(bool value, bool without_stored_cookies) {
        return set<tav_http_set_keep_undecoded_body>(detail::as_switch(value),
                                                     detail::as_switch(without_stored_cookies));
    }

    /// Option 901. An empty function clears, here and below.
    std::error_code on_connecting(connecting_function function) {
        return install<&detail::callbacks::connecting, tav_http_set_connecting>(
            std::move(function));
    }
    /// Option 902.
    std::error_code on_connected(connected_function function) {
        return install<&detail::callbacks::connected, tav_http_set_connected>(std::move(function));
    }
    /// Option 903.
    std::error_code on_download_start(download_start_function function) {
        return install<&detail::callbacks::download_start, tav_http_set_download_start>(
            std::move(function));
    }
    /// Option 904.
    std::error_code on_redirect(redirect_function function) {
        return install<&detail::callbacks::redirect, tav_http_set_redirect>(std::move(function));
    }
    /// Option 906. The body is not kept in memory then. After a retry the bytes come from their
    /// start again, on_connecting announces it: body_to takes care of that.
    std::error_code on_download_data(download_data_function function) {
        return install<&detail::callbacks::download_data, tav_http_set_download_data>(
            std::move(function));
    }
    /// Option 907. Without it nobody learns of the end. The function may close the session or
    /// destroy its owner; all functions of the session are dropped when it has run.
    std::error_code on_complete(complete_function function) {
        if (!has_functions()) {
            return errc::invalid_arg;
        }
        // The library calls in any case, from tavHTTPOpen on.
        functions().complete = std::move(function);
        return {};
    }
    /// Option 908.
    std::error_code on_upload_progress(upload_progress_function function) {
        return install<&detail::callbacks::upload_progress, tav_http_set_upload_progress>(
            std::move(function));
    }
    /// Option 909.
    std::error_code on_response_header(response_header_function function) {
        return install<&detail::callbacks::response_header, tav_http_set_response_header>(
            std::move(function));
    }

    /// The body goes to this sink and is not kept in memory.
    std::error_code body_to(body_sink sink) {
        if (!has_functions() || !sink.write) {
            return errc::invalid_arg;
        }
        functions().sink = std::move(sink);
        functions().has_sink = true;
        hook<&detail::callbacks::connecting, tav_http_set_connecting>();
        return hook<&detail::callbacks::download_data, tav_http_set_download_data>();
    }
    /// The body goes to this stream, which outlives the session's callbacks. To begin anew it is
    /// put back to where it was; one that cannot go back, or that a shorter body does not cover,
    /// ends the session with errc::fail_write_response_file, as does one that takes no more.
    std::error_code body_to(std::ostream& stream) {
        body_sink sink;
        sink.begin = [&stream, start = std::optional<std::ostream::pos_type>()]() mutable {
            if (!start) {
                start = stream.tellp();
                return true;
            }
            return *start != std::ostream::pos_type(-1) && stream.seekp(*start).good();
        };
        sink.write = [&stream](std::string_view data) {
            return stream.write(data.data(), static_cast<std::streamsize>(data.size())).good();
        };
        sink.truncates = false;
        return body_to(std::move(sink));
    }

  private:
    friend class client;

    void open(tavhttp::method method, text url, const proxy_info* proxy) {
        slot_ = detail::take_slot();
        handle_ = tavHTTPOpen(static_cast<std::uint32_t>(method), url.get(), proxy, slot_,
                              detail::call_complete);
        if (handle_ == nullptr) {
            detail::give_back(std::exchange(slot_, nullptr));
            return;
        }
        std::lock_guard<std::mutex> guard(slot_->lock);
        slot_->handle = handle_;
        slot_->functions = std::make_unique<detail::callbacks>();
    }

    // There are none without a session, and behind its completion.
    bool has_functions() const {
        return slot_ != nullptr && slot_->functions != nullptr;
    }

    detail::callbacks& functions() {
        return *slot_->functions;
    }

    // Every value has the type that the library reads for this option, to the letter: nothing is
    // converted on the way.
    template <auto setter, typename... values> std::error_code set(values... given) {
        static_assert(std::is_same_v<decltype(setter), std::uint32_t (*)(http_session*, values...)>,
                      "this option is read with another type");
        return make_error(setter(handle_, given...));
    }

    template <auto field, auto setter, typename function_type>
    std::error_code install(function_type function) {
        if (!has_functions()) {
            return errc::invalid_arg;
        }
        functions().*field = std::move(function);
        return hook<field, setter>();
    }

    // The library calls where the host or the layer itself has something to do.
    template <auto field, auto setter> std::error_code hook() {
        return set_callback<field>(setter, detail::is_wanted<field>(functions()));
    }

    template <auto field, typename... values>
    std::error_code set_callback(std::uint32_t (*setter)(http_session*,
                                                         void (*)(http_session*, void*, values...)),
                                 bool is_wanted) {
        return make_error(setter(handle_, is_wanted ? detail::call<field, values...> : nullptr));
    }

    // The library counts bytes in 31 bits.
    static bool fits(std::size_t size) {
        return size <= static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max());
    }

    detail::slot* slot_ = nullptr;
    redirect_policy policy_ = redirect_policy::follow;
    bool is_stripped_ = false;  // of what was set for another host
};

// ------------------------------------------------------------------------ start-up and shut-down

/// Starts the library, or counts one more user of it; needs a shutdown() in either case. Never two
/// of these at a time.
[[nodiscard]] inline std::error_code startup() {
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
    [[nodiscard]] std::error_code error() const noexcept {
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
        std::lock_guard<std::shared_mutex> guard(all.log_lock);
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
[[nodiscard]] inline std::string download_directory() {
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

// ----------------------------------------------------------------------------- whole transfers

/// Sets options of a session that is about to be sent.
using configure_function = std::function<void(session&)>;

/// @cond
namespace detail {

// One transfer of a client, over all the sessions that a redirect may take.
struct exchange {
    tavhttp::method method;
    configure_function configure;
    std::promise<result> promise;
    std::mutex lock;
    session current;
    bool is_over = false;  // the promise is kept
    int redirects = 0;
};

// The transfers of one client that are not over.
struct exchange_list {
    std::mutex lock;
    std::set<std::shared_ptr<exchange>> all;
};

}  // namespace detail
/// @endcond

/// Whole transfers: the call waits, or gives a future. Keeps the library started while it lives;
/// may be used by several threads at once. What it has not finished when it goes ends with
/// errc::cancel.
///
/// A session lasts until it ends by itself: set a session_timeout in `configure`.
class client {
  public:
    /// Starts the library; see error().
    client() = default;
    /// Ends what is under way.
    ~client() {
        std::set<std::shared_ptr<detail::exchange>> left;
        {
            std::lock_guard<std::mutex> guard(exchanges_->lock);
            left.swap(exchanges_->all);
        }
        for (const std::shared_ptr<detail::exchange>& each : left) {
            finish(*each, refused(errc::cancel));
        }
    }
    client(const client&) = delete;
    client& operator=(const client&) = delete;

    /// The result of the start.
    [[nodiscard]] std::error_code error() const noexcept {
        return library_.error();
    }

    /// Begins a transfer. `configure` sets what the session needs; it runs again, on a thread of
    /// the library, when redirect_policy::without_headers goes on at another host. on_complete is
    /// the client's own.
    [[nodiscard]] std::future<result> start(tavhttp::method method, text url,
                                            configure_function configure = {}) {
        auto begun = std::make_shared<detail::exchange>();
        begun->method = method;
        begun->configure = std::move(configure);
        std::future<result> future = begun->promise.get_future();
        {
            std::lock_guard<std::mutex> guard(exchanges_->lock);
            exchanges_->all.insert(begun);
        }
        send(exchanges_, begun, url);
        return future;
    }

    /// The same, and waits. Not inside a callback: it would wait for its own thread.
    result run(tavhttp::method method, text url, configure_function configure = {}) {
        return start(method, url, std::move(configure)).get();
    }
    /// GET into memory.
    result get(text url, configure_function configure = {}) {
        return run(method::get, url, std::move(configure));
    }
    /// POST of these bytes.
    result post(text url, std::string_view body, const configure_function& configure = {}) {
        return run(method::post, url, [&](session& each) {
            each.append_body(body);
            if (configure) {
                configure(each);
            }
        });
    }
    /// GET to this file, which it replaces when it is complete.
    result download(text url, text path, const configure_function& configure = {}) {
        return run(method::get, url, [&](session& each) {
            each.download_file(path);
            if (configure) {
                configure(each);
            }
        });
    }

  private:
    using list = std::shared_ptr<detail::exchange_list>;
    using item = std::shared_ptr<detail::exchange>;

    // The last session of an exchange, and what it gave.
    static void finish(detail::exchange& over, result given) {
        session last;
        {
            std::lock_guard<std::mutex> guard(over.lock);
            if (std::exchange(over.is_over, true)) {
                return;
            }
            last = std::move(over.current);
        }
        last.close();
        over.promise.set_value(std::move(given));
    }

    static void send(const list& all, const item& sent, text url) {
        session next(sent->method, url);
        next.is_stripped_ = sent->redirects > 0;
        if (sent->configure) {
            sent->configure(next);
        }
        if (!next) {
            return end(all, sent, refused(errc::out_of_memory));
        }
        std::shared_ptr<detail::stopped_redirect> stopped = next.functions().stopped;
        bool goes_on = next.policy_ == redirect_policy::without_headers;
        std::error_code code = next.on_complete(
            [all, sent, stopped, goes_on](session_ref ended, std::error_code outcome) {
                if (stopped == nullptr || stopped->url.empty() || outcome != errc::cancel) {
                    end(all, sent, detail::read_result(ended, outcome));
                } else if (!goes_on) {
                    end(all, sent, std::move(stopped->response));
                } else if (sent->redirects++ == 11) {
                    end(all, sent, refused(errc::too_many_redirect));
                } else {
                    send(all, sent, stopped->url);
                }
            });
        {
            std::lock_guard<std::mutex> guard(sent->lock);
            if (sent->is_over) {
                return;
            }
            // The session that ended goes with this function.
            std::swap(sent->current, next);
            code = code ? code : sent->current.send();
        }
        if (code) {
            end(all, sent, refused(code));
        }
    }

    static result refused(std::error_code code) {
        result given;
        given.code = code;
        return given;
    }

    static void end(const list& all, const item& done, result given) {
        {
            std::lock_guard<std::mutex> guard(all->lock);
            all->all.erase(done);
        }
        finish(*done, std::move(given));
    }

    library library_;
    list exchanges_ = std::make_shared<detail::exchange_list>();
};

}  // namespace tavhttp

#endif
