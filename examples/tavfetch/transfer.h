// One URL from its request to its result: the part of tavfetch that talks to the library.
//
//   start_transfer -> callbacks on the library's threads -> EVENT_COMPLETE in the queue
//   -> finish_transfer on the main thread
#ifndef EXAMPLES_TAVFETCH_TRANSFER_H
#define EXAMPLES_TAVFETCH_TRANSFER_H

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "arguments.h"
#include "checksum.h"
#include "events.h"
#include "target.h"
#include "tavhttpclient/tavhttpclient_typed.h"

typedef std::chrono::steady_clock::time_point time_point;

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

// Why tavfetch itself ended a session that the library would have gone on with.
enum transfer_verdict {
    VERDICT_NONE,
    VERDICT_RESTART,        // a resumed server sends from the start: the file would be spoilt
    VERDICT_BROKEN,         // the library connects anew, where another head would go unseen
    VERDICT_REDIRECT,       // to another host, which needs a session of its own
    VERDICT_COMPLETE,       // the file to resume is complete
    VERDICT_REFUSED,        // an error page in place of the rest: the file stays as it is
    VERDICT_RANGE_IGNORED,  // the whole resource in place of --range
    VERDICT_CHANGED,        // another resource than the one whose beginning is out already
    VERDICT_OUTPUT_CLOSED,  // the stream takes no more
    VERDICT_NO_TEXT         // bytes that do not belong on a terminal
};

// A failure of tavfetch's own, which no code of the library names.
struct own_failure {
    int exit_code = 0;
    std::string text;  // empty: none
};

struct transfer {
    // Set before the first start.
    const arguments* args;
    event_queue* events;
    std::string url;            // without user and password
    std::string authorization;  // the header value made of them; empty: none
    std::string label;
    transfer_target target;
    time_point started;

    // Main thread; while a session runs, the library's threads read them.
    http_session* session = nullptr;
    std::string current_url;  // of this session; another after a redirect to another host
    std::optional<proxy_address> proxy;
    own_failure failure;  // of the start
    bool resuming = false;
    int64_t resume_from = 0;
    std::string validator;           // names the version of the bytes that were received
    bool has_host_settings = false;  // header lines or a proxy that are for one host
    bool wants_text = false;         // the stream is a terminal
    int retries = 0, redirects = 0;
    bool has_repeated = false;  // one attempt after a broken connection is free
    time_point wake_at;         // no session runs, another attempt begins then

    // Callbacks of the session: one runs at a time.
    checksum stream_sum = checksum(nullptr, EVP_MD_CTX_free);
    int64_t stream_end = 0;  // TARGET_STREAM: the bytes before it are out

    // Under the lock: written by the library's threads.
    std::mutex lock;
    transfer_progress progress;
    transfer_verdict verdict = VERDICT_NONE;
    std::string redirect_url;       // VERDICT_REDIRECT
    bool connecting_https = false;  // an https connection is being made
    time_point connected, first_byte, last_byte;
    std::string received_validator;
    bool expects_connection = false;  // the first one, or a redirect's
    int64_t body_start = 0;           // where the body began that was stored
};

// Opens and sends a session for the current URL. A failure arrives as an event too.
void start_transfer(transfer* item);

transfer_progress get_progress(transfer* item);

#endif
