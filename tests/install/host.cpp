// The same in C++. Compiles with and without exceptions.
#include <cstdio>
#include <future>

#include <tavhttpclient/tavhttpclient.hpp>

int main(int argc, char** argv) {
    tavhttp::library library;
    if (argc != 2 || library.error()) {
        return 2;
    }
    auto done = std::make_shared<std::promise<std::error_code>>();
    tavhttp::session session(tavhttp::method::get, argv[1]);
    session.session_timeout(std::chrono::seconds(20));
    session.on_complete([done](auto, std::error_code code) { done->set_value(code); });
    std::error_code code = session.send();
    if (!code) {
        code = done->get_future().get();
    }
    puts(code.message().c_str());
    return code == tavhttp::errc::TAV_HTTP_ERROR_CODE_FAIL_CONNECT ? 0 : 1;
}
