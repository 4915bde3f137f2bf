// Downloads a URL to a file with the C++ layer, shows the progress, and goes on where an earlier
// run broke off.
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <future>

#include "tavhttpclient/tavhttpclient.hpp"

// What the library's threads and the main thread share.
struct download {
    std::promise<std::error_code> done;
    std::uint64_t present = 0;  // bytes of the file before the start
    std::uint64_t total = 0;
    std::atomic<bool> not_resumable{false};  // the server sends the whole file again
    std::atomic<bool> is_complete{false};    // there is nothing left to fetch
};

static void on_head(download& state, tavhttp::session_ref session) {
    std::uint32_t status = session.status_code().value_or(0);
    std::string whole = "bytes */" + std::to_string(state.present);
    if (status == 200 && state.present > 0) {
        // It would be appended to what is there.
        state.not_resumable = true;
        session.cancel();
    } else if (status == 416 && session.header("Content-Range") == whole) {
        state.is_complete = true;
        session.cancel();
    }
}

static void on_data(const download& state, std::uint64_t end) {
    if (state.total > 0) {
        fprintf(stderr, "\r%3u %%", (unsigned)(end * 100 / state.total));
    } else {
        fprintf(stderr, "\r%llu bytes", (unsigned long long)end);
    }
}

static std::error_code run(const std::shared_ptr<download>& state, const char* url,
                           const char* path) {
    tavhttp::session session(tavhttp::method::get, url);
    session.download_file(path);
    session.resume();
    session.no_compression();  // offsets count bytes of the file
    session.on_response_header([state](tavhttp::session_ref s) { on_head(*state, s); });
    session.on_download_start([state](auto, auto, std::uint64_t first, auto, std::uint64_t length) {
        state->total = length > 0 ? first + length : 0;
    });
    session.on_download_data([state](auto, std::uint64_t offset, auto, std::uint32_t length) {
        on_data(*state, offset + length);
    });
    session.on_complete([state](auto, std::error_code code) { state->done.set_value(code); });
    std::error_code code = session.send();
    return code ? code : state->done.get_future().get();
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: cpp_resumable_download URL FILE\n");
        return 2;
    }
    tavhttp::library library;
    std::error_code file_error;
    auto state = std::make_shared<download>();
    std::uintmax_t size = std::filesystem::file_size(argv[2], file_error);
    state->present = file_error ? 0 : size;
    std::error_code code = run(state, argv[1], argv[2]);
    if (state->not_resumable) {
        std::filesystem::remove(argv[2], file_error);
        code = run(std::make_shared<download>(), argv[1], argv[2]);
    }
    if (state->is_complete) {
        code = {};
    }
    fprintf(stderr, "\n%s\n", code.message().c_str());
    return code ? 1 : 0;
}
