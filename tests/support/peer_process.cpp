#include "tests/support/peer_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

constexpr milliseconds poll_interval{5};

void pause_briefly() {
    poll(nullptr, 0, static_cast<int>(poll_interval.count()));
}

bool connects(std::uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return connected;
}

// The child's side of a fork: only calls that are safe there.
[[noreturn]] void become(char* const* arguments, const char* directory, int input, int output,
                         int errors, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    bool ready = getppid() == parent && (directory == nullptr || chdir(directory) == 0) &&
                 dup2(input, 0) == 0 && dup2(output, 1) == 1 && dup2(errors, 2) == 2;
    if (ready) {
        execv(arguments[0], arguments);
    }
    _exit(127);
}

std::vector<char*> pointers(std::vector<std::string>& arguments) {
    std::vector<char*> all;
    for (std::string& argument : arguments) {
        all.push_back(&argument[0]);
    }
    all.push_back(nullptr);
    return all;
}

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

}  // namespace

std::uint16_t free_port(bool ipv6) {
    int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 address6 = {};
    sockaddr_in address4 = {};
    address6.sin6_family = AF_INET6;
    address6.sin6_addr = in6addr_loopback;
    address4.sin_family = AF_INET;
    address4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* address =
        ipv6 ? reinterpret_cast<sockaddr*>(&address6) : reinterpret_cast<sockaddr*>(&address4);
    socklen_t length = ipv6 ? sizeof address6 : sizeof address4;
    EXPECT_EQ(0, bind(fd, address, length));
    EXPECT_EQ(0, getsockname(fd, address, &length));
    close(fd);
    return ntohs(ipv6 ? address6.sin6_port : address4.sin_port);
}

// The system's own directories come first: what a developer has put before them may be a wrapper
// that starts slowly.
std::string find_program(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::istringstream directories(std::string("/usr/bin:/usr/sbin:/bin:/sbin:") +
                                   (path != nullptr ? path : ""));
    std::string directory;
    while (std::getline(directories, directory, ':')) {
        std::string candidate = directory + "/" + name;
        if (!directory.empty() && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    ADD_FAILURE() << name << " is not installed; \"scripts/install-deps test\" installs it";
    return "";
}

std::string output_of(const std::vector<std::string>& arguments, int* status) {
    std::vector<std::string> words = arguments;
    words[0] = find_program(words[0]);
    int out[2];
    if (words[0].empty() || pipe2(out, O_CLOEXEC) != 0) {
        return "";
    }
    std::vector<char*> argv = pointers(words);
    int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        become(argv.data(), nullptr, null, out[1], null, parent);
    }
    close(null);
    close(out[1]);
    std::string bytes;
    char block[65536];
    ssize_t got = 0;
    while ((got = read(out[0], block, sizeof block)) > 0 || (got < 0 && errno == EINTR)) {
        bytes.append(block, got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    close(out[0]);
    int wait_status = 0;
    waitpid(pid, &wait_status, 0);
    if (status != nullptr) {
        *status = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : -1;
    }
    return bytes;
}

// ------------------------------------------------------------------------------------------------

peer_process::~peer_process() {
    stop();
}

bool peer_process::start(const std::vector<std::string>& arguments, std::uint16_t port,
                         const std::string& directory) {
    if (attempt(arguments, port, directory)) {
        return true;
    }
    ADD_FAILURE() << arguments[0] << " does not serve: " << output();
    return false;
}

bool peer_process::start(
    const std::function<std::vector<std::string>(std::uint16_t)>& arguments_for,
    const std::string& directory) {
    for (int i = 0; i < 5; i++) {
        std::uint16_t port = free_port();
        if (attempt(arguments_for(port), port, directory)) {
            return true;
        }
    }
    ADD_FAILURE() << "no server: " << output();
    return false;
}

bool peer_process::attempt(const std::vector<std::string>& arguments, std::uint16_t port,
                           const std::string& directory) {
    stop();
    directory_ = directory;
    output_path_ = directory + "/" + arguments[0] + "-output";
    port_ = port;
    if (!spawn(arguments)) {
        return false;
    }
    if (!wait_for_port()) {
        stop();
        return false;
    }
    return true;
}

bool peer_process::spawn(const std::vector<std::string>& arguments) {
    std::vector<std::string> words = arguments;
    words[0] = find_program(words[0]);
    if (words[0].empty()) {
        return false;
    }
    int in[2];
    int log = open(output_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (log < 0 || pipe2(in, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "cannot start " << words[0];
        return false;
    }
    std::vector<char*> argv = pointers(words);
    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        become(argv.data(), directory_.c_str(), in[0], log, log, parent);
    }
    close(in[0]);
    close(log);
    input_ = in[1];
    return pid_ > 0;
}

// Takes the child's end, so that its id is never used again.
bool peer_process::ended() {
    if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
    }
    return pid_ <= 0;
}

bool peer_process::wait_for_port() {
    auto end = std::chrono::steady_clock::now() + default_deadline;
    while (std::chrono::steady_clock::now() < end) {
        bool open = connects(port_);
        // A port that answers may be somebody else's, which the child has found in use.
        if (ended()) {
            return false;
        }
        if (open) {
            return true;
        }
        pause_briefly();
    }
    return false;
}

bool peer_process::wait_for_end(milliseconds deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (!ended()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        pause_briefly();
    }
    return true;
}

void peer_process::stop() {
    if (!ended()) {
        ::kill(pid_, SIGTERM);
        if (!wait_for_end(milliseconds(2000))) {
            kill();
        }
    }
    if (input_ >= 0) {
        close(input_);
        input_ = -1;
    }
}

void peer_process::kill() {
    if (!ended()) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

void peer_process::write_input(const std::string& bytes) {
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(input_, bytes.data(), bytes.size()));
}

std::string peer_process::output() const {
    return slurp(output_path_);
}
