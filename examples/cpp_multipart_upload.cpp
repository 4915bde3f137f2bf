// Sends a text and a file as a form with the C++ layer and prints what the server answers.
#include <cstdio>
#include <future>

#include "tavhttpclient/tavhttpclient.hpp"

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: cpp_multipart_upload URL TITLE FILE\n");
        return 2;
    }
    tavhttp::library library;
    tavhttp::session session(tavhttp::method::post, argv[1]);
    session.add_form_field("title", argv[2]);
    session.add_form_file("file", argv[3]);
    session.keep_error_body();  // a refusal usually says why
    session.on_upload_progress([](tavhttp::session_ref, std::uint64_t sent, const void*,
                                  std::uint32_t length, std::uint64_t total) {
        fprintf(stderr, "\r%llu of %llu bytes", (unsigned long long)(sent + length),
                (unsigned long long)total);
    });

    auto done = std::make_shared<std::promise<std::error_code>>();
    session.on_complete(
        [done](tavhttp::session_ref, std::error_code code) { done->set_value(code); });
    std::error_code code = session.send();
    if (!code) {
        code = done->get_future().get();
    }
    fprintf(stderr, "\n%s\n", code.message().c_str());
    puts(session.memory_body().value_or("").c_str());
    return code ? 1 : 0;
}
