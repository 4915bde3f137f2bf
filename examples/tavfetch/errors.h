// What went wrong, in words and as an exit code.
#ifndef EXAMPLES_TAVFETCH_ERRORS_H
#define EXAMPLES_TAVFETCH_ERRORS_H

#include <cstdint>
#include <string>

enum {
    EXIT_OK = 0,
    EXIT_USAGE = 1,
    EXIT_NETWORK = 2,
    EXIT_TLS = 3,
    EXIT_SERVER = 4,
    EXIT_FILE = 5,
    EXIT_TIMEOUT = 6,
    EXIT_CANCELLED = 7,
    EXIT_INTERNAL = 8,
    EXIT_CHECKSUM = 9
};

// The two outcomes that have no name of their own.
enum : uint32_t {
    CODE_CERTIFICATE_NAME = 0x4000A
};

// The constant's name, or the number in hexadecimal when it has none.
std::string code_name(uint32_t code);

// What happened and its usual cause, without a full stop.
//
// status       the last HTTP status, 0 when there was none; names the refusal.
// in_handshake an https connection was being made, so that a broken one is a TLS failure.
std::string explain_code(uint32_t code, uint32_t status, const std::string& status_text,
                         bool in_handshake);

// The exit code that stands for the outcome. 0 and "not modified" are successes.
int exit_code_of(uint32_t code, bool in_handshake);

#endif
