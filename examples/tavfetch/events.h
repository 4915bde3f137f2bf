// What the library's threads tell the main thread.
#ifndef EXAMPLES_TAVFETCH_EVENTS_H
#define EXAMPLES_TAVFETCH_EVENTS_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

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

struct event_queue {
    std::mutex lock;
    std::condition_variable filled;
    std::deque<transfer_event> events;
};

void push_event(event_queue* queue, const transfer_event& event);

// Waits for an event, at most `wait`. False when none came.
bool pop_event(event_queue* queue, std::chrono::milliseconds wait, transfer_event* event);

#endif
