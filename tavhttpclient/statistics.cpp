#include "tavhttpclient/statistics.h"

#include <stdlib.h>

#include "platform/win_time.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/util.h"

static session_stats* stats = nullptr;

bool init_session_stats(void) {
    if (stats == nullptr) {
        stats = (session_stats*)calloc(1, sizeof(session_stats));
    }
    return stats != nullptr;
}

void uninit_session_stats(void) {
    free(stats);
    stats = nullptr;
}

static uint64_t _current_second(void) {
    return GetTickCount64() / 1000;
}

void rate_ring_add(rate_ring* ring, uint64_t count) {
    uint64_t now = _current_second();
    uint64_t index = now % 5;
    rate_bucket* following = &ring->buckets[(index + 1) % 5];
    following->second = 0;
    following->bytes = 0;
    ring->buckets[index].bytes += count;
    ring->buckets[index].second = now;
}

float rate_ring_rate(const rate_ring* ring) {
    uint64_t now = _current_second();
    uint64_t index = now % 5;
    uint64_t sum = 0;
    int32_t used = 0;
    for (uint64_t back = 1; back <= 3; back++) {
        const rate_bucket* bucket = &ring->buckets[(index + 5 - back) % 5];
        if (now - bucket->second <= 3) {
            sum += bucket->bytes;
            used++;
        }
    }
    if (used == 0) {
        return (float)ring->buckets[index].bytes;
    }
    return (float)((double)sum / used);
}

void count_sent_bytes(uint64_t count) {
    if (stats != nullptr) {
        stats->sent_total += count;
        rate_ring_add(&stats->sent_rate, count);
    }
}

void count_received_bytes(uint64_t count) {
    if (stats != nullptr) {
        stats->recv_total += count;
        rate_ring_add(&stats->recv_rate, count);
    }
}

void count_session_started(void) {
    if (stats == nullptr) {
        return;
    }
    stats->total++;
    stats->alive++;
    if (stats->alive > stats->max_alive) {
        stats->max_alive = stats->alive;
    }
}

void count_session_ended(void) {
    if (stats != nullptr) {
        stats->alive--;
    }
}

void log_session_stats(void) {
    if (stats == nullptr) {
        return;
    }
    char down_bytes[64];
    char up_bytes[64];
    LOG_INFO("Session-Stat: down-rate=%.2f, up-rate=%.2f, down-bytes=%s, up-bytes=%s",
             (double)rate_ring_rate(&stats->recv_rate), (double)rate_ring_rate(&stats->sent_rate),
             uint64_to_text(stats->recv_total, down_bytes),
             uint64_to_text(stats->sent_total, up_bytes));
    LOG_INFO("Session-Queue: alive=%d, max-alive=%d, total=%d", stats->alive, stats->max_alive,
             (int32_t)stats->total);
}
