// Which proxy a transfer goes through.
#ifndef EXAMPLES_TAVFETCH_PROXY_H
#define EXAMPLES_TAVFETCH_PROXY_H

#include <cstdint>
#include <optional>
#include <string>

struct proxy_address {
    uint32_t type;  // TAV_HTTP_PROXY_
    std::string host;
    uint16_t port;
    std::string user_name;  // empty: no authentication
    std::string password;
};

// [http://|socks5://][user[:password]@]host[:port]. Returns "" or a complaint that names `source`.
std::string parse_proxy(const std::string& source, const std::string& text,
                        std::optional<proxy_address>* result);

// The proxy that the environment gives for this URL: http_proxy, https_proxy, all_proxy, and
// no_proxy for exceptions. Returns "" or a complaint.
std::string environment_proxy(const std::string& url, std::optional<proxy_address>* result);

#endif
