// The readers of header values, and the encoders that write some. Lines: a date, a Content-Range, a
// Connection value; the rest is encoded.
#include "fuzz/fuzz_support.h"

#include "tavhttpclient/util.h"

namespace {

void check_date(const heap_block& text) {
    int64_t seconds = 0;
    int32_t length = static_cast<int32_t>(strlen(text.get()));
    if (!parse_http_date(text.get(), length, &seconds)) {
        FUZZ_CHECK(seconds == 0);
        return;
    }
    // What can be written is read as the same moment again.
    heap_block written(time_to_http_gmt_time(seconds));
    int64_t again = 0;
    FUZZ_CHECK(written == nullptr ||
               (parse_http_date(written.get(), -1, &again) && again == seconds));
}

void check_range(const heap_block& text) {
    int64_t first = 1;
    int64_t last = 1;
    int64_t complete = 1;
    if (!parse_content_range(text.get(), -1, &first, &last, &complete)) {
        FUZZ_CHECK(first == 0 && last == 0 && complete == 0);
    }
    int32_t half = static_cast<int32_t>(strlen(text.get()) / 2);
    parse_content_range(text.get(), half, &first, &last, &complete);
}

void check_connection(const heap_block& text) {
    int32_t keep_alive = 0;
    int32_t timeout = 0;
    int32_t max = 0;
    parse_connection_value(text.get(), &keep_alive, &timeout, &max);
    FUZZ_CHECK(keep_alive != 0 || (timeout == 0 && max == 0));
}

int value_of(char character) {
    const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const char* found = strchr(alphabet, character);
    return found != nullptr ? static_cast<int>(found - alphabet) : -1;
}

void check_base64(const char* bytes, size_t size) {
    if (size == 0) {
        return;
    }
    char* encoded = nullptr;
    uint32_t length = 0;
    FUZZ_CHECK(base64_encode(bytes, static_cast<uint32_t>(size), &encoded, &length));
    std::string text = take_text(encoded);
    FUZZ_CHECK(text.size() == length && length == (size + 2) / 3 * 4);
    std::string decoded;
    uint32_t bits = 0;
    int count = 0;
    for (char character : text) {
        if (character == '=') {
            break;
        }
        bits = (bits << 6) | static_cast<uint32_t>(value_of(character));
        count += 6;
        if (count >= 8) {
            count -= 8;
            decoded += static_cast<char>((bits >> count) & 0xFF);
        }
    }
    FUZZ_CHECK(decoded == std::string(bytes, size));
}

void check_trim(const heap_block& text) {
    std::string trimmed = take_text(trim_string(text.get(), -1));
    FUZZ_CHECK(trimmed.size() <= strlen(text.get()));
    FUZZ_CHECK(trimmed.empty() || (strchr(" \t", trimmed[0]) == nullptr &&
                                   strchr(" \t", trimmed[trimmed.size() - 1]) == nullptr));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool started = fuzz_start();
    (void)started;
    fuzz_input input(data, size);
    heap_block date = exact_text(input.line());
    check_date(date);
    check_trim(date);
    check_range(exact_text(input.line()));
    check_connection(exact_text(input.line()));
    heap_block rest = exact_block(input.rest(), input.rest_size());
    check_base64(rest.get(), input.rest_size());
    return 0;
}
