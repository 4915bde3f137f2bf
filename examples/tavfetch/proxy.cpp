#include "proxy.h"

#include <cstdlib>
#include <sstream>

#include "tavhttpclient/tavhttpclient.h"
#include "text.h"
#include "url.h"

static const uint16_t DEFAULT_PORT = 1080;

// "host", "host:80", "[::1]:80"
static bool parse_host(const std::string& text, proxy_address* proxy) {
    proxy->host = text;
    proxy->port = DEFAULT_PORT;
    size_t colon = text.rfind(':');
    size_t bracket = text.rfind(']');
    if (colon != std::string::npos && (bracket == std::string::npos || colon > bracket)) {
        long long port = 0;
        if (!parse_number(text.substr(colon + 1), &port) || port < 1 || port > 65535) {
            return false;
        }
        proxy->port = (uint16_t)port;
        proxy->host = text.substr(0, colon);
    }
    if (proxy->host.size() > 2 && proxy->host.front() == '[' && proxy->host.back() == ']') {
        proxy->host = proxy->host.substr(1, proxy->host.size() - 2);
    }
    return !proxy->host.empty() && proxy->host.find('/') == std::string::npos;
}

std::string parse_proxy(const std::string& source, const std::string& text,
                        std::optional<proxy_address>* result) {
    proxy_address proxy{};
    std::string rest = complete_url(text);
    std::string scheme = scheme_of(rest);
    if (scheme == "http") {
        proxy.type = TAV_HTTP_PROXY_HTTP;
    } else if (scheme == "socks5" || scheme == "socks5h") {
        proxy.type = TAV_HTTP_PROXY_SOCKS5;
    } else {
        return source + " wants http://host:port or socks5://host:port";
    }
    std::string login = take_login(&rest);
    size_t colon = login.find(':');
    proxy.user_name = percent_decode(login.substr(0, colon));
    if (colon != std::string::npos) {
        proxy.password = percent_decode(login.substr(colon + 1));
    }
    rest.erase(0, rest.find("://") + 3);
    if (!rest.empty() && rest.back() == '/') {
        rest.pop_back();
    }
    if (!parse_host(rest, &proxy)) {
        return source + " needs a host and a port, as in http://host:3128";
    }
    *result = proxy;
    return "";
}

// The first variable of the two that is set and not empty.
static std::string variable(const char* name, const char* other, std::string* found) {
    for (const char* candidate : {name, other}) {
        const char* value = candidate == nullptr ? nullptr : getenv(candidate);
        if (value != nullptr && value[0] != '\0') {
            *found = candidate;
            return value;
        }
    }
    return "";
}

// "example.com" and ".example.com" stand for the host and all below it.
static bool is_exempt(const std::string& host) {
    std::string name;
    std::string list = lower_case(variable("no_proxy", "NO_PROXY", &name));
    for (char& c : list) {
        c = c == ',' ? ' ' : c;
    }
    std::istringstream entries(list);
    for (std::string entry; entries >> entry;) {
        if (entry == "*") {
            return true;
        }
        if (entry.front() == '[' && entry.back() == ']') {
            entry = entry.substr(1, entry.size() - 2);
        }
        entry.erase(0, entry.find_first_not_of('.'));
        size_t start = host.size() - entry.size();
        if (!entry.empty() && entry.size() <= host.size() && host.substr(start) == entry &&
            (start == 0 || host[start - 1] == '.')) {
            return true;
        }
    }
    return false;
}

std::string environment_proxy(const std::string& url, std::optional<proxy_address>* result) {
    result->reset();
    std::string name;
    // HTTP_PROXY is what a web server tells a CGI program about a header line of its client.
    std::string text = scheme_of(url) == "https" ? variable("https_proxy", "HTTPS_PROXY", &name)
                                                 : variable("http_proxy", nullptr, &name);
    if (text.empty()) {
        text = variable("all_proxy", "ALL_PROXY", &name);
    }
    if (text.empty() || is_exempt(host_of(url))) {
        return "";
    }
    return parse_proxy(name, text, result);
}
