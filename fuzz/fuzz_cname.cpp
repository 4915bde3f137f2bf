// The certificate's subject and the name that a host expects in it. First line: the expected name;
// the rest is the subject, an entry a line.
#include "fuzz/fuzz_support.h"

#include "tavhttpclient/netbasehttps_openssl.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool started = fuzz_start();
    (void)started;
    fuzz_input input(data, size);
    heap_block expected = exact_text(input.line());
    std::string subject_text(input.rest(), input.rest_size());
    heap_block subject = exact_text(subject_text.substr(0, subject_text.find('\0')));

    char* name = find_common_name(subject.get());
    if (name == nullptr) {
        return 0;
    }
    FUZZ_CHECK(name > subject.get() && strchr(name, '\n') == nullptr);
    bool matches = common_name_matches(name, expected.get());
    FUZZ_CHECK(!matches || name[0] == '*' || strlen(name) == strlen(expected.get()));
    FUZZ_CHECK(!matches || name[0] != '*' || strlen(expected.get()) + 2 >= strlen(name));
    FUZZ_CHECK(name[0] == '*' || common_name_matches(name, name));
    return 0;
}
