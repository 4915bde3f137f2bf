// What the tests' support asks the system for, on Windows: the process's handles, a folder's files.
#include <filesystem>

#include "support/host.h"

resources count_resources() {
    resources now;
    DWORD handles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handles);
    now.descriptors = handles;
    return now;
}

std::set<std::string> list_files(const std::string& folder) {
    std::set<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (!entry.is_directory()) {
            files.insert(entry.path().string());
        }
    }
    return files;
}

void remove_folder(const std::string& folder) {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}
