// The bodies that servers and sessions of the soak know on both sides, and the answers made of
// them.
#ifndef TESTS_SOAK_SOAK_BODIES_H
#define TESTS_SOAK_SOAK_BODIES_H

#include "tests/support/scripted_server.h"

#include <string>
#include <vector>

struct soak_body {
    std::string bytes;
    std::string zipped;
    std::uint32_t crc = 0;
};

// Made once, before any thread starts; sizes grow with the index.
const std::vector<soak_body>& soak_bodies();

std::uint32_t crc_of(const char* bytes, std::size_t length);

// What a server echoes for an upload.
std::string upload_receipt(const std::string& bytes);

// Answers a request by its path:
//   /plain/N /chunked/N /zip/N /close/N   body N: with a length, in chunks, as gzip, until the
//   close /moved/N                              a redirect to /plain/N /echo the receipt of the
//   request's body /form/N                               "found" when the request's body contains
//   body N
// A Range header is answered with 206; HEAD and OPTIONS as usual.
std::string answer_request(const std::string& method, const std::string& target,
                           const std::string& range, const std::string& body);

#endif
