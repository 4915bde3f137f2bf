#include "terminal.h"

#include <cstdlib>
#include <cstring>

#if defined(_WIN32)

#include <fcntl.h>
#include <io.h>
#include <windows.h>

bool is_terminal() {
    HANDLE handle = GetStdHandle(STD_ERROR_HANDLE);
    DWORD mode = 0;
    return GetConsoleMode(handle, &mode) &&
           SetConsoleMode(handle, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

void get_terminal_size(int* columns, int* lines) {
    CONSOLE_SCREEN_BUFFER_INFO info;
    bool known = GetConsoleScreenBufferInfo(GetStdHandle(STD_ERROR_HANDLE), &info);
    *columns = known ? info.srWindow.Right - info.srWindow.Left + 1 : 80;
    *lines = known ? info.srWindow.Bottom - info.srWindow.Top + 1 : 24;
}

void prepare_streams() {
    _setmode(_fileno(stdout), _O_BINARY);
}

#else

#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>

bool is_terminal() {
    const char* kind = getenv("TERM");
    return isatty(STDERR_FILENO) && kind != nullptr && strcmp(kind, "dumb") != 0;
}

void get_terminal_size(int* columns, int* lines) {
    struct winsize size;
    memset(&size, 0, sizeof(size));
    bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    *columns = known ? size.ws_col : 80;
    *lines = known && size.ws_row > 0 ? size.ws_row : 24;
}

void prepare_streams() {
    signal(SIGPIPE, SIG_IGN);
}

#endif

std::string printable(const std::string& text) {
    std::string clean = text;
    for (char& character : clean) {
        unsigned char byte = (unsigned char)character;
        if (byte < 0x20 || byte == 0x7f) {
            character = '?';
        }
    }
    return clean;
}
