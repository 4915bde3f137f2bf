// The replies of both kinds of proxy. Byte 0 chooses the kind, the rest is the reply as it was
// read.
#include "fuzz/fuzz_support.h"

#include "tavhttpclient/httpproxyconnect.h"
#include "tavhttpclient/sock5proxyconnect.h"

namespace {

void check_http_reply(const char* reply, int32_t length) {
    int32_t status = -1;
    bool parsed = _parse_proxy_status_code(reply, length, &status);
    FUZZ_CHECK(parsed || status == 0);
    FUZZ_CHECK(status >= -99 && status <= 999);
    FUZZ_CHECK((judge_proxy_reply(reply, length) == 0) == (status == 200));
}

void check_connect_reply(const uint8_t* reply, int32_t length) {
    struct sockaddr_storage bound = {};
    if (sock5_accept_connect_reply(reply, length, &bound)) {
        FUZZ_CHECK(length == 10 || length == 22);
        FUZZ_CHECK(bound.ss_family == (length == 10 ? AF_INET : AF_INET6));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool started = fuzz_start();
    (void)started;
    fuzz_input input(data, size);
    uint8_t kind = input.byte();
    heap_block block = exact_block(input.rest(), input.rest_size());
    int32_t length = static_cast<int32_t>(input.rest_size());
    const auto* bytes = reinterpret_cast<const uint8_t*>(block.get());
    switch (kind % 3) {
    case 0:
        check_http_reply(block.get(), length);
        break;
    case 1:
        for (uint8_t offered : {0, 2}) {
            bool agreed = sock5_judge_method_reply(bytes, length, offered) == 0;
            FUZZ_CHECK(agreed == (length == 2 && bytes[0] == 5 && bytes[1] == offered));
        }
        break;
    default:
        check_connect_reply(bytes, length);
        break;
    }
    return 0;
}
