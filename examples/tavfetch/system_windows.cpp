#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <shellapi.h>

#include <atomic>
#include <filesystem>

#include "system.h"

static std::atomic<int> stop_signal(0);

bool is_terminal() {
    HANDLE handle = GetStdHandle(STD_ERROR_HANDLE);
    DWORD mode = 0;
    return GetConsoleMode(handle, &mode) &&
           SetConsoleMode(handle, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

bool is_output_terminal() {
    DWORD mode = 0;
    return GetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), &mode) != 0;
}

void get_terminal_size(int* columns, int* lines) {
    CONSOLE_SCREEN_BUFFER_INFO info;
    bool known = GetConsoleScreenBufferInfo(GetStdHandle(STD_ERROR_HANDLE), &info);
    *columns = known ? info.srWindow.Right - info.srWindow.Left + 1 : 80;
    *lines = known ? info.srWindow.Bottom - info.srWindow.Top + 1 : 24;
}

void prepare_streams() {
    _setmode(_fileno(stdout), _O_BINARY);
    SetConsoleOutputCP(CP_UTF8);
}

static std::string to_utf8(const wchar_t* text) {
    int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (size < 1) {
        return "";
    }
    std::string result((size_t)size, '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, &result[0], size, nullptr, nullptr);
    result.pop_back();
    return result;
}

std::vector<std::string> utf8_arguments(int argc, char** argv) {
    int count = 0;
    wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
    if (wide == nullptr) {
        return std::vector<std::string>(argv, argv + argc);
    }
    std::vector<std::string> result;
    for (int i = 0; i < count; i++) {
        result.push_back(to_utf8(wide[i]));
    }
    LocalFree(wide);
    return result;
}

FILE* open_stream(const std::string& path) {
    return _wfopen(std::filesystem::u8path(path).c_str(), L"wb");
}

// "nul", "COM1.txt"
// It takes the rights of the folder it is made in.
bool make_private_folder(const std::filesystem::path& path, std::error_code* error) {
    return std::filesystem::create_directory(path, *error);
}

bool is_device_name(const std::string& name) {
    static const char* const devices[] = {"con", "prn", "aux", "nul"};
    std::string stem = name.substr(0, name.find('.'));
    for (const char* device : devices) {
        if (_stricmp(stem.c_str(), device) == 0) {
            return true;
        }
    }
    return stem.size() == 4 && stem[3] >= '0' && stem[3] <= '9' &&
           (_strnicmp(stem.c_str(), "com", 3) == 0 || _strnicmp(stem.c_str(), "lpt", 3) == 0);
}

// A thread of the system's. Ctrl-C, Ctrl-Break, and the window, session or system that ends.
static BOOL WINAPI on_control(DWORD) {
    int none = 0;
    return stop_signal.compare_exchange_strong(none, 1);
}

void watch_signals() {
    SetConsoleCtrlHandler(on_control, TRUE);
}

void hold_signals(bool) {
}

int pending_signal() {
    return stop_signal.load();
}

void end_by_signal(int) {
    fflush(nullptr);
    ExitProcess(0xC000013Au);  // what an unhandled Ctrl-C ends with
}
