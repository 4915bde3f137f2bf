// Figures of all sessions since the loop started: bytes, rates, sessions. Loop thread only.
#ifndef TAVHTTPCLIENT_STATISTICS_H
#define TAVHTTPCLIENT_STATISTICS_H

#include <stdint.h>

// Bytes per second over the last seconds: bucket i serves the seconds that are i modulo 5.
struct rate_bucket {
    uint64_t second;
    uint64_t bytes;
};

struct rate_ring {
    rate_bucket buckets[5];
};

struct session_stats {
    uint64_t sent_total;
    uint64_t recv_total;
    rate_ring sent_rate;
    rate_ring recv_rate;
    int32_t alive;  // started and not completed; may become negative, see count_session_ended
    int32_t max_alive;
    uint64_t total;  // started
};

// At loop start and loop end. False: out of memory. Without a record nothing is counted.
bool init_session_stats(void);
void uninit_session_stats(void);

// What the transport has written to and read from the network.
void count_sent_bytes(uint64_t count);
void count_received_bytes(uint64_t count);

void count_session_started(void);
// For every completion, also of a session that was never started.
void count_session_ended(void);

// The two lines "Session-Stat" and "Session-Queue".
void log_session_stats(void);

// The bucket of the current second is cleared one second earlier, by an update in that second.
void rate_ring_add(rate_ring* ring, uint64_t count);
// Bytes per second over those of the three seconds past that had any.
float rate_ring_rate(const rate_ring* ring);

#endif
