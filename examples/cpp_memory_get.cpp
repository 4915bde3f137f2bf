// Fetches a URL into memory with the C++ layer and prints it.
#include <cstdio>
#include <future>

#include "tavhttpclient/tavhttpclient.hpp"

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: cpp_memory_get URL\n");
        return 2;
    }
    tavhttp::library library;
    tavhttp::session session(tavhttp::method::get, argv[1]);
    session.session_timeout(std::chrono::seconds(20));

    // The callback runs on a thread of the library and holds what it uses.
    auto done = std::make_shared<std::promise<std::error_code>>();
    session.on_complete(
        [done](tavhttp::session_ref, std::error_code code) { done->set_value(code); });
    std::error_code code = session.send();
    if (!code) {
        code = done->get_future().get();
    }

    fprintf(stderr, "%s, status %u, from %s\n", code.message().c_str(),
            (unsigned)session.status_code().value_or(0), session.peer_address().c_str());
    std::string body = session.memory_body().value_or("");
    fwrite(body.data(), 1, body.size(), stdout);
    return code ? 1 : 0;
}
