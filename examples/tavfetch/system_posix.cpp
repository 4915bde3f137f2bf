#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "system.h"

static const int STOP_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};

static volatile sig_atomic_t stop_signal = 0;

bool is_terminal() {
    const char* kind = getenv("TERM");
    return isatty(STDERR_FILENO) && kind != nullptr && strcmp(kind, "dumb") != 0;
}

bool is_output_terminal() {
    return isatty(STDOUT_FILENO);
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

std::vector<std::string> utf8_arguments(int argc, char** argv) {
    return std::vector<std::string>(argv, argv + argc);
}

FILE* open_stream(const std::string& path) {
    return fopen(path.c_str(), "wb");
}

bool make_private_folder(const std::filesystem::path& path, std::error_code* error) {
    bool made = mkdir(path.c_str(), S_IRWXU) == 0;
    *error = made || errno == EEXIST ? std::error_code()
                                     : std::error_code(errno, std::generic_category());
    return made;
}

bool is_device_name(const std::string&) {
    return false;
}

static void on_signal(int number) {
    stop_signal = number;
}

// No call is restarted, so that opening a pipe that nobody reads ends too.
void watch_signals() {
    for (int number : STOP_SIGNALS) {
        struct sigaction action;
        // What nohup and the shell's background jobs ignore stays ignored.
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
            continue;
        }
        memset(&action, 0, sizeof(action));
        action.sa_handler = on_signal;
        action.sa_flags = (int)SA_RESETHAND;
        sigaction(number, &action, nullptr);
    }
}

void hold_signals(bool hold) {
    sigset_t set;
    sigemptyset(&set);
    for (int number : STOP_SIGNALS) {
        sigaddset(&set, number);
    }
    pthread_sigmask(hold ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
}

int pending_signal() {
    return stop_signal;
}

void end_by_signal(int number) {
    signal(number, SIG_DFL);
    raise(number);
    _exit(128 + number);
}
