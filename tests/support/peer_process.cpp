#include "tests/support/peer_process.h"

#include "tests/support/host.h"

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
#include <sstream>

namespace {

// Asks every few milliseconds: nothing tells that a child takes connections or has ended.
template <typename condition> bool poll_until(condition holds, milliseconds deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        poll(nullptr, 0, 5);
    }
    return true;
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

}  // namespace

std::uint16_t free_port(bool ipv6) {
    std::uint16_t port = 0;
    close(bind_loopback(ipv6, &port));
    return port;
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
    bool serves = spawn(arguments) && wait_for_port();
    if (!serves) {
        stop();
    }
    return serves;
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
    bool open = false;
    bool gone = false;
    poll_until(
        [&] {
            open = connects(port_);
            // A port that answers may be somebody else's, which the child has found in use.
            gone = ended();
            return open || gone;
        },
        default_deadline);
    return open && !gone;
}

void peer_process::stop() {
    if (!ended()) {
        ::kill(pid_, SIGTERM);
        if (!poll_until([this] { return ended(); }, milliseconds(2000))) {
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
    return read_file(output_path_);
}
