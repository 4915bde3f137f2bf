// URLs: taking them apart, escaping, and the targets of redirects. Two lines: a URL, a location.
#include "fuzz/fuzz_support.h"

#include "tavhttpclient/util.h"

namespace {

void check_view(const char* text, const text_view& view) {
    if (view.data == nullptr) {
        FUZZ_CHECK(view.length == 0);
        return;
    }
    FUZZ_CHECK(view.data >= text && view.data + view.length <= text + strlen(text));
}

void check_parts(const char* url) {
    url_info info;
    bool parsed = parse_url_info(url, &info);
    if (parsed) {
        FUZZ_CHECK(info.host.length > 0);
        for (const text_view& view : {info.scheme, info.user, info.password, info.host, info.port,
                                      info.path, info.query, info.fragment}) {
            check_view(url, view);
        }
    }
    char* scheme = nullptr;
    char* host = nullptr;
    char* path = nullptr;
    char* target = nullptr;
    uint16_t port = 0;
    bool analysed = analyze_url(url, &scheme, &host, &port, &path, &target);
    FUZZ_CHECK(!analysed || parsed);
    FUZZ_CHECK(analysed ==
               (scheme != nullptr && host != nullptr && path != nullptr && target != nullptr));
    FUZZ_CHECK(!analysed ||
               (port != 0 && path[0] == '/' && strncmp(target, path, strlen(path)) == 0) ||
               (port != 0 && path[0] == '?'));
    take_text(scheme);
    take_text(host);
    take_text(path);
    take_text(target);
}

void check_escape(const char* text) {
    std::string escaped = take_text(url_char_escape(text));
    FUZZ_CHECK(escaped.size() >= strlen(text) && escaped.size() <= 3 * strlen(text));
    for (char character : escaped) {
        bool plain = (character >= '0' && character <= '9') ||
                     (character >= 'A' && character <= 'Z') ||
                     (character >= 'a' && character <= 'z');
        FUZZ_CHECK(plain || strchr("-._~%", character) != nullptr);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool started = fuzz_start();
    (void)started;
    fuzz_input input(data, size);
    heap_block url = exact_text(input.line());
    heap_block location = exact_text(input.line());
    check_parts(url.get());
    check_parts(location.get());
    check_escape(url.get());

    bool absolute = is_absolute_url(location.get());
    FUZZ_CHECK(!absolute || strstr(location.get(), "://") != nullptr);
    std::string relative = take_text(resolve_relative_url(url.get(), location.get()));
    FUZZ_CHECK(relative.size() <= strlen(url.get()) + strlen(location.get()) + 1);
    std::string same_scheme = take_text(make_scheme_relative_url(url.get(), location.get()));
    FUZZ_CHECK(same_scheme.empty() || same_scheme.size() >= strlen(location.get()));
    return 0;
}
