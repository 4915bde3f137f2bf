// URLs: a small, lenient splitter that hands out views, what is built on it, and escaping.
//
// analyze_url -> parse_url_info -> _parse_authority -> _parse_host_and_port
//                               -> _parse_path_part
// resolve_relative_url -> _count_dot_segments -> _remove_segments
#include <stdlib.h>
#include <string.h>

#include "tavhttpclient/util.h"

// A piece of text while it is being split; both null: absent.
struct text_range {
    const char* begin;
    const char* end;
};

static text_view _view(text_range range) {
    text_view view = {range.begin, (uint32_t)(range.end - range.begin)};
    return view;
}

bool split_at_char(const char* begin, const char* end, char separator, const char** first_begin,
                   const char** first_end, const char** second_begin, const char** second_end,
                   bool* found) {
    *first_begin = *first_end = *second_begin = *second_end = nullptr;
    if (found != nullptr) {
        *found = false;
    }
    if (begin == nullptr || end == nullptr) {
        return false;
    }
    const char* at = (const char*)memchr(begin, separator, (size_t)(end - begin));
    if (at == nullptr) {
        *first_begin = begin;
        *first_end = end;
        return true;
    }
    if (found != nullptr) {
        *found = true;
    }
    if (at != begin) {
        *first_begin = begin;
        *first_end = at;
    }
    if (at + 1 != end) {
        *second_begin = at + 1;
        *second_end = end;
    }
    return true;
}

// Returns whether the separator was there.
static bool _split(text_range range, char separator, text_range* first, text_range* second) {
    bool found = false;
    split_at_char(range.begin, range.end, separator, &first->begin, &first->end, &second->begin,
                  &second->end, &found);
    return found;
}

// After the opening bracket: "address]" or "address]:port".
static bool _parse_bracketed_host(text_range range, url_info* info) {
    text_range host;
    text_range behind;
    if (!_split(range, ']', &host, &behind) || host.begin == nullptr) {
        return false;
    }
    info->host = _view(host);
    if (behind.begin == nullptr) {
        return true;
    }
    if (*behind.begin != ':' || behind.begin + 1 == behind.end) {
        return false;
    }
    behind.begin += 1;
    info->port = _view(behind);
    return true;
}

static bool _parse_host_and_port(text_range range, url_info* info) {
    if (range.begin == nullptr) {
        return false;
    }
    if (*range.begin == '[') {
        range.begin += 1;
        return _parse_bracketed_host(range, info);
    }
    text_range host;
    text_range port;
    _split(range, ':', &host, &port);
    if (host.begin == nullptr) {
        return false;
    }
    info->host = _view(host);
    info->port = _view(port);
    return true;
}

// "host", "host:port", "user@..." or "user:password@...".
static bool _parse_authority(text_range authority, url_info* info) {
    text_range before;
    text_range behind;
    _split(authority, '@', &before, &behind);
    // Before a final '@' stands the host: nothing is left that it could be the user of.
    bool has_user = behind.begin != nullptr && before.begin != nullptr;
    if (!_parse_host_and_port(behind.begin != nullptr ? behind : before, info)) {
        return false;
    }
    if (!has_user) {
        return true;
    }
    text_range user;
    text_range password;
    _split(before, ':', &user, &password);
    if (user.begin == nullptr) {
        return false;
    }
    info->user = _view(user);
    info->password = _view(password);
    return true;
}

// From the '/' or '?' behind the authority to the end.
static void _parse_path_part(text_range part, url_info* info) {
    text_range before_fragment;
    text_range fragment;
    text_range path;
    text_range query;
    _split(part, '#', &before_fragment, &fragment);
    _split(before_fragment, '?', &path, &query);
    info->path = _view(path);
    info->query = _view(query);
    info->fragment = _view(fragment);
}

bool parse_url_info(const char* url, url_info* info) {
    if (info == nullptr) {
        return false;
    }
    memset(info, 0, sizeof(*info));
    if (url == nullptr || *url == 0) {
        return false;
    }
    url += strspn(url, " ");
    const char* mark = strstr(url, "://");
    if (mark == nullptr || mark[3] == 0) {
        return false;
    }
    text_range scheme = {url, mark};
    text_range rest = {mark + 3, mark + strlen(mark)};
    info->scheme = _view(scheme);

    text_range authority;
    text_range path;
    bool found = _split(rest, '/', &authority, &path);
    if (!found) {
        _split(rest, '?', &authority, &path);
    }
    if (authority.begin == nullptr || !_parse_authority(authority, info)) {
        return false;
    }
    if (path.begin != nullptr) {
        path.begin -= 1;  // The path keeps its first separator.
        _parse_path_part(path, info);
    }
    return true;
}

static char* _dup_view(text_view view) {
    char* copy = (char*)malloc((size_t)view.length + 1);
    if (copy != nullptr) {
        memcpy(copy, view.data, view.length);
        copy[view.length] = 0;
    }
    return copy;
}

static uint16_t _port_number(const url_info* info) {
    // The digits are followed by '/', '?' or the URL's end, where the conversion stops.
    uint16_t port = 0;
    if (info->port.data != nullptr) {
        port = (uint16_t)strtol(info->port.data, nullptr, 10);
    }
    if (port != 0) {
        return port;
    }
    // The scheme's length alone decides, so that its case does not matter.
    return info->scheme.length == 5 ? 443 : 80;
}

static char* _make_path(const url_info* info) {
    return info->path.length != 0 ? _dup_view(info->path) : string_dup("/");
}

// Path and query as the request line carries them; without a path the query is left out.
static char* _make_target(const url_info* info) {
    if (info->path.length == 0 || info->query.length == 0) {
        return _make_path(info);
    }
    text_buffer buffer;
    text_buffer_init(&buffer, info->path.length + 4 + info->query.length);
    if (!text_buffer_append_format(&buffer, "%.*s?%.*s", (int)info->path.length, info->path.data,
                                   (int)info->query.length, info->query.data)) {
        text_buffer_release(&buffer);
    }
    return buffer.data;
}

bool analyze_url(const char* url, char** scheme, char** host, uint16_t* port, char** path,
                 char** target) {
    url_info info;
    if (!parse_url_info(url, &info) || info.host.length == 0 || info.scheme.length == 0) {
        return false;
    }
    char* new_scheme = scheme != nullptr ? _dup_view(info.scheme) : nullptr;
    char* new_host = host != nullptr ? _dup_view(info.host) : nullptr;
    char* new_path = path != nullptr ? _make_path(&info) : nullptr;
    char* new_target = target != nullptr ? _make_target(&info) : nullptr;
    bool failed =
        (scheme != nullptr && new_scheme == nullptr) || (host != nullptr && new_host == nullptr) ||
        (path != nullptr && new_path == nullptr) || (target != nullptr && new_target == nullptr);
    if (failed) {
        free(new_scheme);
        free(new_host);
        free(new_path);
        free(new_target);
        return false;
    }
    if (scheme != nullptr) {
        *scheme = new_scheme;
    }
    if (host != nullptr) {
        *host = new_host;
    }
    if (port != nullptr) {
        *port = _port_number(&info);
    }
    if (path != nullptr) {
        *path = new_path;
    }
    if (target != nullptr) {
        *target = new_target;
    }
    return true;
}

bool is_absolute_url(const char* text) {
    if (text == nullptr) {
        return false;
    }
    size_t length = strcspn(text, "?&/:");
    return length >= 1 && length <= 15 && strncmp(text + length, "://", 3) == 0 &&
           text[length + 3] != 0;
}

char* make_scheme_relative_url(const char* current, const char* location) {
    const char* mark = current != nullptr ? strstr(current, "//") : nullptr;
    if (mark == nullptr || location == nullptr) {
        return nullptr;
    }
    text_buffer buffer = {nullptr, 0, 0};
    size_t length = strlen(location);
    if (length < INT32_MAX - 16) {
        text_buffer_init(&buffer, (uint32_t)length + 16);
    }
    if (!text_buffer_append_format(&buffer, "%.*s%s", (int)(mark - current), current, location)) {
        text_buffer_release(&buffer);
    }
    return buffer.data;
}

static void _cut(char* at) {
    if (at != nullptr) {
        *at = 0;
    }
}

// Skips the leading dot segments of `location`; `up` gets the number of "../".
static const char* _count_dot_segments(const char* location, uint32_t* up) {
    *up = 0;
    if (strncmp(location, "./", 2) == 0) {
        location += 2;
    }
    while (strncmp(location, "../", 3) == 0) {
        location += 3;
        *up += 1;
    }
    return location;
}

// Removes `count` segments from the end; more than there are leave nothing.
static void _remove_segments(char* path, uint32_t count) {
    for (; count > 0; --count) {
        char* last = strrchr(path, '/');
        if (last == nullptr) {
            *path = 0;
            return;
        }
        *last = 0;
    }
}

char* resolve_relative_url(const char* current, const char* location) {
    char* base = location != nullptr ? string_dup(current) : nullptr;
    if (base == nullptr) {
        return nullptr;
    }
    char* mark = strstr(base, "//");
    char* rest = mark != nullptr ? mark + 2 : base;
    char* path = nullptr;  // Behind the first '/' that is kept of the current path.
    if (*location == '/') {
        _cut(strpbrk(rest, "/?"));
    } else {
        _cut(strchr(rest, '?'));
        if (*location != '?') {
            _cut(strrchr(rest, '/'));
        }
        char* slash = strchr(rest, '/');
        path = slash != nullptr ? slash + 1 : nullptr;
        uint32_t up = 0;
        location = _count_dot_segments(location, &up);
        if (path != nullptr) {
            _remove_segments(path, up);
        }
    }
    bool ends_in_slash = path != nullptr && *path == 0;
    bool add_slash = *location != '/' && *location != '?' && !ends_in_slash;
    char* joined = string_format("%s%s%s", base, add_slash ? "/" : "", location);
    free(base);
    return joined;
}

static bool _is_unreserved(uint8_t byte) {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
           (byte >= '0' && byte <= '9') || byte == '-' || byte == '.' || byte == '_' || byte == '~';
}

char* url_char_escape(const char* text) {
    static const char digits[] = "0123456789ABCDEF";
    if (text == nullptr) {
        return nullptr;
    }
    size_t length = strlen(text);
    char* escaped = length < SIZE_MAX / 3 ? (char*)malloc(length * 3 + 1) : nullptr;
    if (escaped == nullptr) {
        return nullptr;
    }
    char* out = escaped;
    for (const uint8_t* at = (const uint8_t*)text; *at != 0; ++at) {
        if (_is_unreserved(*at)) {
            *out++ = (char)*at;
        } else {
            *out++ = '%';
            *out++ = digits[*at >> 4];
            *out++ = digits[*at & 0x0F];
        }
    }
    *out = 0;
    return escaped;
}
