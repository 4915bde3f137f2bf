#include "events.h"

void push_event(event_queue* queue, const transfer_event& event) {
    std::lock_guard<std::mutex> guard(queue->lock);
    queue->events.push_back(event);
    queue->filled.notify_one();
}

bool pop_event(event_queue* queue, std::chrono::milliseconds wait, transfer_event* event) {
    std::unique_lock<std::mutex> guard(queue->lock);
    if (!queue->filled.wait_for(guard, wait, [queue] { return !queue->events.empty(); })) {
        return false;
    }
    *event = queue->events.front();
    queue->events.pop_front();
    return true;
}
