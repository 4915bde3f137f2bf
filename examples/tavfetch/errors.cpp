#include "errors.h"

#include <cstdio>

#include "tavhttpclient/tavhttpclient_typed.h"
#include "text.h"

// Where the user can change what the library's text speaks of.
static const struct {
    uint32_t code;
    const char* text;
} HINTS[] = {
    {TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT, "--timeout"},
    {TAV_HTTP_ERROR_CODE_FAIL_CONNECT, "--connect-timeout"},
    {TAV_HTTP_ERROR_CODE_RECV_TIMEOUT, "--io-timeout"},
    {TAV_HTTP_ERROR_CODE_SEND_TIMEOUT, "--io-timeout"},
    {CODE_CERTIFICATE_NAME, "--tls-name"},
};

// A failed TLS engine ends with a negative number instead of a code.
static bool is_tls_engine_failure(uint32_t code) {
    return (code & 0x80000000u) != 0;
}

static bool is_handshake_failure(uint32_t code, bool in_handshake) {
    return in_handshake &&
           (code == TAV_HTTP_ERROR_CODE_FAIL_RECV || code == TAV_HTTP_ERROR_CODE_FAIL_SEND);
}

std::string code_name(uint32_t code) {
    const char* name = tav_http_error_name(code);
    if (name != nullptr) {
        return name;
    }
    char text[16];
    snprintf(text, sizeof(text), "0x%X", (unsigned)code);
    return text;
}

static std::string explain_status(uint32_t status, const std::string& status_text) {
    std::string text = "the server answered " + std::to_string(status);
    if (!status_text.empty()) {
        text += " " + printable(status_text);
    }
    if (status == 407) {
        return text + "; the proxy wants a user and a password";
    }
    if (status > 200 && status < 300) {
        return text + ", and only 200 and 206 count as success";
    }
    if (status == 301 || status == 302 || status == 303 || status == 307) {
        return text + " but not where to go";
    }
    return text;
}

std::string explain_code(uint32_t code, uint32_t status, const std::string& status_text,
                         bool in_handshake) {
    if (code == TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR) {
        return explain_status(status, status_text);
    }
    if (is_tls_engine_failure(code) || is_handshake_failure(code, in_handshake)) {
        return in_handshake ? "the TLS handshake failed; does the server speak https on that port?"
                            : "the TLS connection failed";
    }
    std::string text = tav_http_error_text(code);
    for (const auto& hint : HINTS) {
        if (hint.code == code) {
            text += std::string(", see ") + hint.text;
        }
    }
    return text;
}

int exit_code_of(uint32_t code, bool in_handshake) {
    switch (code) {
    case TAV_HTTP_ERROR_CODE_OK:
    case TAV_HTTP_ERROR_CODE_NOT_MODIFIED:
        return EXIT_OK;
    case TAV_HTTP_ERROR_CODE_CANCEL:
        return EXIT_CANCELLED;
    case TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT:
    case TAV_HTTP_ERROR_CODE_DNS_TIMEOUT:
    case TAV_HTTP_ERROR_CODE_RECV_TIMEOUT:
    case TAV_HTTP_ERROR_CODE_SEND_TIMEOUT:
        return EXIT_TIMEOUT;
    case TAV_HTTP_ERROR_CODE_INVALID_URL:
    case TAV_HTTP_ERROR_CODE_INVALID_PROXY:
    case TAV_HTTP_ERROR_CODE_INVALID_FORM_DATA:
    case TAV_HTTP_ERROR_CODE_INVALID_REQUEST_HEADER:
        return EXIT_USAGE;
    case TAV_HTTP_ERROR_CODE_NOT_SUPPORT_HTTPS:
    case CODE_CERTIFICATE_NAME:
        return EXIT_TLS;
    default:
        break;
    }
    if (is_tls_engine_failure(code) || is_handshake_failure(code, in_handshake)) {
        return EXIT_TLS;
    }
    switch (code & 0xFFFF0000u) {
    case TAV_HTTP_ERROR_CODE_PROTOCOL_FLAG:
        return EXIT_SERVER;
    case TAV_HTTP_ERROR_CODE_NETWORK_FLAG:
        return EXIT_NETWORK;
    case TAV_HTTP_ERROR_CODE_FILE_SYSTEM_FLAG:
        return EXIT_FILE;
    default:
        return EXIT_INTERNAL;
    }
}
