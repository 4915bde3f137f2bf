// Servers of other makers, run as child processes of a test: each on a loopback port of its own,
// with its files in a directory of its own.
//
// A child ends with its peer_process, and also when the test program dies. A program that is not
// installed is a failure of the test.
#ifndef TESTS_SUPPORT_PEER_PROCESS_H
#define TESTS_SUPPORT_PEER_PROCESS_H

#include "tests/support/scripted_server.h"

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// A port of 127.0.0.1 that was free a moment ago, or of ::1.
std::uint16_t free_port(bool ipv6 = false);

// The system's program of this name, as a path; empty, and a failure, when there is none.
std::string find_program(const std::string& name);

// Runs a program to its end. Returns its standard output; `status`: its exit code.
std::string output_of(const std::vector<std::string>& arguments, int* status = nullptr);

class peer_process : not_copied {
  public:
    ~peer_process();  // stop()

    // Starts the program and returns when its port on 127.0.0.1 takes connections. False, with a
    // failure that shows its output, when it ends before or takes too long.
    // arguments  the first one is the program's name.
    // directory  existing; the program's current directory, and where its output goes.
    bool start(const std::vector<std::string>& arguments, std::uint16_t port,
               const std::string& directory);
    // The same on a free port, which `arguments_for` puts into the arguments; another one is tried
    // when somebody else was faster to take it.
    bool start(const std::function<std::vector<std::string>(std::uint16_t)>& arguments_for,
               const std::string& directory);

    void stop();  // in order; killed when that takes too long
    void kill();  // at once: the system closes the program's connections
    void write_input(const std::string& bytes);  // to its standard input, which is a pipe
    std::string output() const;                  // standard output and errors so far

    std::uint16_t port() const {
        return port_;
    }

  private:
    bool attempt(const std::vector<std::string>& arguments, std::uint16_t port,
                 const std::string& directory);
    bool spawn(const std::vector<std::string>& arguments);
    bool ended();
    bool wait_for_port();

    pid_t pid_ = -1;
    int input_ = -1;
    std::uint16_t port_ = 0;
    std::string directory_;
    std::string output_path_;
};

#endif
