// One URL from its request to its result: the part of tavfetch that talks to the library.
//
//   start_transfer -> callbacks on the library's threads -> EVENT_COMPLETE in the queue
//   -> finish_transfer on the main thread
#ifndef EXAMPLES_TAVFETCH_TRANSFER_H
#define EXAMPLES_TAVFETCH_TRANSFER_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

#include "arguments.h"
#include "target.h"
#include "tavhttpclient/tavhttpclient.h"

typedef std::chrono::steady_clock::time_point time_point;

struct transfer;

enum event_kind {
    EVENT_REDIRECT,
    EVENT_COMPLETE
};

struct transfer_event {
    event_kind kind;
    transfer* owner;
    uint32_t code;     // EVENT_COMPLETE
    std::string text;  // EVENT_REDIRECT: where to
};

// From the library's threads to the main thread.
struct event_queue {
    std::mutex lock;
    std::condition_variable filled;
    std::deque<transfer_event> events;
};

void push_event(event_queue* queue, const transfer_event& event);

// Waits for an event, at most `wait`. False when none came.
bool pop_event(event_queue* queue, std::chrono::milliseconds wait, transfer_event* event);

enum transfer_phase {
    PHASE_CONNECTING,
    PHASE_SENDING,
    PHASE_RECEIVING
};

// What the bar shows.
struct transfer_progress {
    transfer_phase phase = PHASE_CONNECTING;
    int64_t received = 0;    // position in the resource, so a resumed one does not begin at 0
    int64_t total = -1;      // -1: unknown
    int64_t sent = 0;        // of the request, its head included
    int64_t send_total = 0;  // 0: not known yet
};

// Why tavfetch itself ended a transfer that the library would have gone on with.
enum transfer_verdict {
    VERDICT_NONE,
    VERDICT_RESTART,        // a resumed server sends from the start: the file would be spoilt
    VERDICT_COMPLETE,       // the file to resume is complete
    VERDICT_RANGE_IGNORED,  // likewise for --range
    VERDICT_OUTPUT_CLOSED   // standard output takes no more
};

struct transfer {
    // Set before the start.
    const arguments* args;
    event_queue* events;
    std::string url;
    std::string label;
    transfer_target target;

    // Main thread.
    http_session* session = nullptr;
    bool resuming = false;
    int64_t resume_from = 0;

    // Under the lock: written by the library's threads.
    std::mutex lock;
    transfer_progress progress;
    transfer_verdict verdict = VERDICT_NONE;
    bool connecting_https = false;  // an https connection is being made
    time_point started, connected, first_byte;
    int64_t body_start = 0;  // where the body began that was stored
    int64_t stream_end = 0;  // TARGET_STREAM: the bytes before it are on standard output
};

struct transfer_result {
    uint32_t code = 0;
    transfer_verdict verdict = VERDICT_NONE;
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
    uint64_t bytes = 0;
    int64_t resumed_from = 0;
    int64_t position = 0;  // reached in the resource
    double connect_seconds = -1, first_byte_seconds = -1, total_seconds = 0;  // -1: never
};

// Opens and sends the session. A failure arrives as an event too.
//
// resuming  continue the target's file behind its end.
void start_transfer(transfer* item, bool resuming);

// Reads the results and closes the session. Main thread, after EVENT_COMPLETE.
transfer_result finish_transfer(transfer* item, uint32_t code);

transfer_progress get_progress(transfer* item);

#endif
