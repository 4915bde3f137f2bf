#include "url.h"

#include <cstring>

#include "system.h"
#include "text.h"

// Names in most file systems end at 255 bytes; a suffix must fit behind this.
static const size_t LONGEST_NAME = 240;

// "user@host:80"
static std::string authority_of(const std::string& url, size_t* start) {
    size_t scheme = url.find("://");
    *start = scheme == std::string::npos ? 0 : scheme + 3;
    return url.substr(*start, url.find_first_of("/?#", *start) - *start);
}

std::string complete_url(const std::string& text) {
    return text.find("://") == std::string::npos ? "http://" + text : text;
}

std::string take_login(std::string* url) {
    size_t start = 0;
    std::string authority = authority_of(*url, &start);
    size_t at = authority.rfind('@');
    if (at == std::string::npos) {
        return "";
    }
    url->erase(start, at + 1);
    return authority.substr(0, at);
}

std::string shown_url(std::string url) {
    take_login(&url);
    return printable(url);
}

std::string scheme_of(const std::string& url) {
    size_t end = url.find("://");
    return end == std::string::npos ? "" : lower_case(url.substr(0, end));
}

// Splits "[::1]:80" and "host"; the port is the scheme's when none is written.
static std::string host_and_port(std::string url, std::string* port) {
    take_login(&url);
    size_t start = 0;
    std::string host = lower_case(authority_of(url, &start));
    size_t colon = host.rfind(':');
    size_t bracket = host.find(']');
    *port = scheme_of(url) == "https" ? "443" : "80";
    if (colon != std::string::npos && (bracket == std::string::npos || colon > bracket)) {
        if (colon + 1 < host.size()) {
            *port = host.substr(colon + 1);
        }
        host.erase(colon);
    }
    return host.size() > 2 && host.front() == '[' && host.back() == ']'
               ? host.substr(1, host.size() - 2)
               : host;
}

std::string host_of(const std::string& url) {
    std::string port;
    return host_and_port(url, &port);
}

// Whether another reader of URLs, such as the library, may find another host in this one:
// "http://a#@b/", "http://u@b:80@a/".
static bool is_ambiguous(const std::string& url) {
    size_t scheme = url.find("://");
    size_t start = scheme == std::string::npos ? 0 : scheme + 3;
    std::string authority = url.substr(start, url.find('/', start) - start);
    return authority.find_first_of("?#@\\") != std::string::npos;
}

bool is_same_origin(const std::string& one, const std::string& other) {
    std::string port, other_port;
    if (one == other) {
        return true;
    }
    return !is_ambiguous(one) && !is_ambiguous(other) && scheme_of(one) == scheme_of(other) &&
           host_and_port(one, &port) == host_and_port(other, &other_port) && port == other_port;
}

// A name that stays in its directory, on every system.
static std::string safe_name(std::string name) {
    for (char& c : name) {
        if ((unsigned char)c < 32 || c == 127 || strchr("/\\:*?\"<>|", c) != nullptr) {
            c = '_';
        }
    }
    if (name.size() > LONGEST_NAME) {
        size_t cut = LONGEST_NAME;
        while (cut > 0 && ((unsigned char)name[cut] & 0xC0) == 0x80) {
            cut--;
        }
        name.resize(cut);
    }
    if (name == "." || name == "..") {
        return "";
    }
    return is_device_name(name) ? "_" + name : name;
}

// A name that is no UTF-8 when decoded stays as it is written.
static std::string decoded_name(const std::string& name) {
    std::string decoded = percent_decode(name);
    return safe_name(is_utf8(decoded) ? decoded : name);
}

std::string name_of_url(const std::string& url) {
    std::string path = url.substr(0, url.find_first_of("?#"));
    size_t scheme = path.find("://");
    size_t host_end = path.find('/', scheme == std::string::npos ? 0 : scheme + 3);
    std::string name =
        host_end == std::string::npos ? "" : decoded_name(path.substr(path.rfind('/') + 1));
    return name.empty() ? "index.html" : name;
}

// The value of a parameter that begins at `start`, its quotes undone.
static std::string parameter_value(const std::string& text, size_t start) {
    if (start >= text.size() || text[start] != '"') {
        return trim(text.substr(start, text.find(';', start) - start));
    }
    std::string value;
    for (size_t i = start + 1; i < text.size() && text[i] != '"'; i++) {
        i += text[i] == '\\' && i + 1 < text.size();
        value += text[i];
    }
    return value;
}

std::string name_of_disposition(const std::string& value) {
    std::string lower = lower_case(value);
    std::string name;
    size_t wide = lower.find("filename*=");
    size_t plain = lower.find("filename=");
    if (wide != std::string::npos) {
        // utf-8'language'percent-encoded
        std::string text = parameter_value(value, wide + 10);
        size_t quote = text.rfind('\'');
        if (lower_case(text.substr(0, 6)) == "utf-8'" && quote > 5) {
            name = decoded_name(text.substr(quote + 1));
        }
    }
    if (name.empty() && plain != std::string::npos) {
        name = parameter_value(value, plain + 9);
        name = safe_name(name.substr(name.find_last_of("/\\") + 1));
    }
    // A server must not hide what it sends.
    if (!name.empty() && name[0] == '.') {
        name[0] = '_';
    }
    return name;
}
