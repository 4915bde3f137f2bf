// Runs a fuzz target over files without a fuzzer: fuzz_corpus TARGET FILE-OR-DIRECTORY...
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#define TARGET(name) extern "C" int name##_input(const std::uint8_t* data, std::size_t size);
#include "fuzz/targets.inc"
#undef TARGET

namespace {

using target_function = int (*)(const std::uint8_t* data, std::size_t size);

target_function find_target(const std::string& name) {
#define TARGET(target)                                                                             \
    if (name == #target) {                                                                         \
        return target##_input;                                                                     \
    }
#include "fuzz/targets.inc"
#undef TARGET
    return nullptr;
}

std::vector<std::string> list_files(int count, char** paths) {
    std::vector<std::string> files;
    for (int i = 0; i < count; i++) {
        if (!std::filesystem::is_directory(paths[i])) {
            files.push_back(paths[i]);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(paths[i])) {
            files.push_back(entry.path().string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    target_function target = argc > 2 ? find_target(argv[1]) : nullptr;
    if (target == nullptr) {
        std::fprintf(stderr, "usage: fuzz_corpus TARGET FILE-OR-DIRECTORY...\n");
        return 2;
    }
    std::vector<std::string> files = list_files(argc - 2, argv + 2);
    for (const std::string& file : files) {
        // Said before it runs: a crash names its input.
        std::printf("%s\n", file.c_str());
        std::fflush(stdout);
        std::ifstream in(file, std::ios::binary);
        std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
        bytes.shrink_to_fit();
        target(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
