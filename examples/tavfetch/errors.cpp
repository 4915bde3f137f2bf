#include "errors.h"

#include <cstdio>

#include "tavhttpclient/tavhttpclient.h"
#include "text.h"

struct code_text {
    uint32_t code;
    const char* text;
};

static const code_text CODE_TEXTS[] = {
    {TAV_HTTP_ERROR_CODE_NOT_MODIFIED, "not changed on the server, nothing was fetched"},
    {TAV_HTTP_ERROR_CODE_CANCEL, "cancelled"},
    {TAV_HTTP_ERROR_CODE_SESSION_TIMEOUT, "not finished within the time of --timeout"},
    {TAV_HTTP_ERROR_CODE_FAIL_RUN_EVENT_LOOP, "the library could not start its thread"},
    {TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY, "not enough memory, or the body is too large for it"},
    {TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK, "the library could not queue its work"},
    {TAV_HTTP_ERROR_CODE_FAIL_START_ASYNC, "the library is not running"},
    {TAV_HTTP_ERROR_CODE_INVALID_URL, "not a URL that can be fetched: http:// or https:// and a "
                                      "host are needed"},
    {TAV_HTTP_ERROR_CODE_INVALID_PROXY, "the proxy's type, host or port is not usable"},
    {TAV_HTTP_ERROR_CODE_INVALID_FORM_DATA, "a form entry has no name or no value"},
    {TAV_HTTP_ERROR_CODE_INVALID_REQUEST_HEADER, "the request could not be put together: check "
                                                 "the URL, the range and the form"},
    {TAV_HTTP_ERROR_CODE_INVALID_CONTENT_LENGTH, "the body has another size than the server "
                                                 "announced; it was cut off or altered"},
    {TAV_HTTP_ERROR_CODE_TOO_MANY_REDIRECT, "too many redirects; the server probably sends them "
                                            "in a circle"},
    {TAV_HTTP_ERROR_CODE_NOT_SUPPORT_HTTPS, "the library was built without https"},
    {TAV_HTTP_ERROR_CODE_PROXY_TYPE_NOT_SUPPORT, "this kind of proxy is not supported"},
    {TAV_HTTP_ERROR_CODE_CONTENT_ENCODING_NOT_SUPPORT, "the body is compressed in an unknown way"},
    {TAV_HTTP_ERROR_CODE_FAIL_DECODE_CONTENT, "the compressed body is damaged"},
    {TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE, "the answer is not HTTP/1.x, or its compressed body "
                                              "is damaged; is the port right?"},
    {CODE_CERTIFICATE_NAME, "the certificate's common name is not the one of --tls-name, or is "
                            "the first entry of its subject, where it is not found"},
    {TAV_HTTP_ERROR_CODE_FAIL_CREATE_SOCKET, "no socket could be made"},
    {TAV_HTTP_ERROR_CODE_FAIL_START_DNS, "the name look-up could not be started"},
    {TAV_HTTP_ERROR_CODE_HOST_NOT_FOUND, "the host's name was not found"},
    {TAV_HTTP_ERROR_CODE_DNS_TIMEOUT, "the name look-up took too long"},
    {TAV_HTTP_ERROR_CODE_RECV_TIMEOUT, "the server sent nothing for too long, see --io-timeout"},
    {TAV_HTTP_ERROR_CODE_SEND_TIMEOUT, "the server took nothing for too long, see --io-timeout"},
    {TAV_HTTP_ERROR_CODE_FAIL_CONNECT,
     "no connection to the server or the proxy: the name is unknown, nothing "
     "listens there, or no answer came in time"},
    {TAV_HTTP_ERROR_CODE_FAIL_SEND, "the connection broke while the request was sent"},
    {TAV_HTTP_ERROR_CODE_FAIL_RECV, "the connection broke before the answer was complete"},
    {TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_CONNECT,
     "the proxy could not connect to the server, or is not allowed to"},
    {TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_SEND, "the proxy broke the connection off"},
    {TAV_HTTP_ERROR_CODE_CONNECT_PROXY_FAIL_RECV, "the proxy broke the connection off, or did not "
                                                  "answer as a proxy of this kind"},
    {TAV_HTTP_ERROR_CODE_CONNECT_PROXY_HOST_NOT_FOUND, "the proxy's name was not found"},
    {TAV_HTTP_ERROR_CODE_CONNECT_PROXY_SVR_DENY,
     "the proxy refused: wrong user or password, a target that it does not "
     "reach, or another kind of proxy"},
    {TAV_HTTP_ERROR_CODE_FAIL_CREATE_DIRECTORY, "the directory could not be created"},
    {TAV_HTTP_ERROR_CODE_FAIL_OPEN_RESPONSE_FILE, "the file could not be opened for writing: does "
                                                  "its directory exist, and may you write there?"},
    {TAV_HTTP_ERROR_CODE_FAIL_WRITE_RESPONSE_FILE, "the file could not be written: is the disk "
                                                   "full?"},
    {TAV_HTTP_ERROR_CODE_FAIL_OPEN_UPLOAD_FILE, "the file to send could not be opened"},
    {TAV_HTTP_ERROR_CODE_FAIL_GET_UPLOAD_FILE_STAT, "the file to send has no readable size"},
    {TAV_HTTP_ERROR_CODE_FAIL_READ_UPLOAD_FILE, "the file to send could not be read to its end; "
                                                "was it changed meanwhile?"},
};

struct code_label {
    uint32_t code;
    const char* name;
};

static const code_label CODE_NAMES[] = {
#define CODE_NAME(name, value) {value, #name},
    TAV_HTTP_ERROR_CODE_MAP(CODE_NAME)
#undef CODE_NAME
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
    for (const code_label& label : CODE_NAMES) {
        if (label.code == code) {
            return label.name;
        }
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
    for (const code_text& entry : CODE_TEXTS) {
        if (entry.code == code) {
            return entry.text;
        }
    }
    return "an internal error";
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
