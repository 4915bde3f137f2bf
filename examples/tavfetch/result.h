// How a transfer ended.
#ifndef EXAMPLES_TAVFETCH_RESULT_H
#define EXAMPLES_TAVFETCH_RESULT_H

#include "transfer.h"

struct transfer_result {
    uint32_t code = 0;
    transfer_verdict verdict = VERDICT_NONE;
    own_failure failure;     // comes before the code
    bool is_broken = false;  // the body broke off, and the library did not try again
    bool in_handshake = false;
    uint32_t status = 0;
    std::string status_text;
    std::string final_url;
    std::string location;  // of a redirect that was not followed
    std::string peer;
    std::string file;     // what is on disk now, also of a failed transfer; empty: nothing
    std::string headers;  // TARGET_NONE
    std::string body;     // TARGET_MEMORY
    std::string md5;
    std::string validator, retry_after, date, disposition;
    double silent_milliseconds = 0;  // since the last byte
    int64_t last_modified = 0;       // seconds since 1970 UTC, 0: unknown
    uint64_t bytes = 0;
    int64_t resumed_from = 0;
    int64_t position = 0;  // reached in the resource
    double connect_seconds = -1, first_byte_seconds = -1, total_seconds = 0;  // -1: never
};

// Reads the results and closes the session. Main thread, after EVENT_COMPLETE.
transfer_result finish_transfer(transfer* item, uint32_t code);

// Checks what arrived, gives the file its time and name, and releases what is left over. Main
// thread, when there is no further attempt. The result may turn into a failure.
void settle_transfer(transfer* item, transfer_result* result);

// The result of a transfer whose session was closed half-way.
transfer_result interrupted_result(transfer* item);

bool is_success(const transfer_result& result);
int exit_code_of(const transfer_result& result);

// What went wrong, in words and with the code's name.
std::string explain_failure(const transfer_result& result);

#endif
