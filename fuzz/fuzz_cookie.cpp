// Cookies of servers and of the host. Lines: a URL, a Cookie text of the host, then Set-Cookie
// values.
#include "fuzz/fuzz_support.h"

#include "tavhttpclient/cookiemgr.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool started = fuzz_start();
    (void)started;
    fuzz_input input(data, size);
    heap_block url = exact_text(input.line());
    heap_block own = exact_text(input.line());
    init_cookie_store();
    while (!input.empty()) {
        heap_block value = exact_text(input.line());
        FUZZ_CHECK(set_cookie_by_http_header(url.get(), value.get()));
    }
    char* stored = nullptr;
    bool found = get_cookie(url.get(), &stored);
    FUZZ_CHECK(found == (stored != nullptr));
    FUZZ_CHECK(!found || (stored[0] != '\0' && stored[strlen(stored) - 1] == ';'));

    std::string merged = take_text(merge_cookie_text(own.get(), stored));
    if (found) {
        // What has been merged has no name twice, so merging it again adds nothing.
        std::string again = take_text(merge_cookie_text(merged.c_str(), merged.c_str()));
        FUZZ_CHECK(again == merged);
    }
    take_text(stored);
    take_text(merge_cookie_text(own.get(), nullptr));
    uninit_cookie_store();
    return 0;
}
