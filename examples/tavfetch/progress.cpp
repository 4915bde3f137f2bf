#include "progress.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <map>

#include "system.h"
#include "text.h"

static const double RATE_WINDOW_SECONDS = 3;
static const double LINE_SECONDS = 5;
static const double SHORTEST_LINE_SECONDS = 0.5;
static const size_t LABEL_WIDTH = 20;

struct rate_sample {
    time_point when;
    int64_t bytes;
};

struct shown_transfer {
    std::deque<rate_sample> samples;
    transfer_phase phase = PHASE_CONNECTING;
    int64_t last_tenth = 0;
    time_point last_line;
};

// The lock guards the screen: log lines come from the library's threads.
static std::mutex screen_lock;
static progress_mode screen_mode = PROGRESS_OFF;
static size_t drawn_lines = 0;
static std::string drawn_text;
static std::map<transfer*, shown_transfer> shown;  // main thread

// The bytes of the phase that the transfer is in.
static void get_counts(const transfer_progress& state, int64_t* done, int64_t* total) {
    bool sending = state.phase == PHASE_SENDING;
    *done = sending ? state.sent : state.received;
    *total = sending ? state.send_total : state.total;
}

// Bytes per second over the last seconds; -1 until there are two samples.
static double update_rate(shown_transfer* view, const transfer_progress& state, time_point now) {
    int64_t done = 0, total = 0;
    get_counts(state, &done, &total);
    if (view->phase != state.phase ||
        (!view->samples.empty() && done < view->samples.back().bytes)) {
        view->phase = state.phase;
        view->samples.clear();
        view->last_tenth = 0;
    }
    // A resumed transfer begins far from 0; its first sample must not look like a burst.
    if (state.phase == PHASE_CONNECTING || (state.phase == PHASE_RECEIVING && done == 0)) {
        return -1;
    }
    view->samples.push_back({now, done});
    while (view->samples.size() > 2 &&
           std::chrono::duration<double>(now - view->samples[1].when).count() >
               RATE_WINDOW_SECONDS) {
        view->samples.pop_front();
    }
    const rate_sample& first = view->samples.front();
    double seconds = std::chrono::duration<double>(now - first.when).count();
    return seconds < 0.05 ? -1 : (double)(done - first.bytes) / seconds;
}

// "45%, 12.3 MiB of 27.0 MiB, 3.4 MiB/s, 0:04 left", as far as known.
static std::string describe(const transfer_progress& state, double rate) {
    int64_t done = 0, total = 0;
    get_counts(state, &done, &total);
    if (state.phase == PHASE_CONNECTING) {
        return "connecting";
    }
    if (state.phase == PHASE_SENDING && done >= total) {
        return "waiting for the answer";
    }
    // What goes to the library's memory is not counted on the way.
    if (state.phase == PHASE_RECEIVING && done == 0) {
        return total > 0 ? "receiving " + format_bytes((double)total) : "receiving";
    }
    std::string text = state.phase == PHASE_SENDING ? "sent " : "";
    if (total > 0) {
        text += std::to_string(std::min<int64_t>(done * 100 / total, 100)) + "%, " +
                format_bytes((double)done) + " of " + format_bytes((double)total);
    } else {
        text += format_bytes((double)done);
    }
    if (rate >= 0) {
        text += ", " + format_bytes(rate) + "/s";
    }
    if (rate > 0 && total > done) {
        text += ", " + format_seconds((double)(total - done) / rate) + " left";
    }
    return text;
}

static size_t count_characters(const std::string& text) {
    return (size_t)std::count_if(text.begin(), text.end(),
                                 [](char c) { return (c & 0xC0) != 0x80; });
}

// Cuts or pads to `width` characters, without splitting one that takes several bytes.
static std::string fit_label(const std::string& label, size_t width) {
    std::string text;
    size_t count = 0;
    for (char c : label) {
        count += (c & 0xC0) != 0x80;
        if (count > width) {
            return text;
        }
        text += c;
    }
    return text.append(width - std::min(count, width), ' ');
}

static std::string make_bar(const transfer_progress& state, size_t width) {
    int64_t done = 0, total = 0;
    get_counts(state, &done, &total);
    size_t filled =
        total > 0 ? (size_t)((double)width * (double)std::min(done, total) / (double)total) : 0;
    std::string bar(filled, '#');
    return "[" + bar.append(width - filled, '.') + "] ";
}

static std::string make_bar_line(const transfer* item, const transfer_progress& state, double rate,
                                 size_t columns) {
    std::string numbers = describe(state, rate);
    size_t label_width = std::min(LABEL_WIDTH, columns / 4);
    std::string line = fit_label(item->label, label_width) + " ";
    // The longest description is about 60 characters; a narrow terminal gets no bar.
    if (columns > label_width + 72) {
        line += make_bar(state, std::min<size_t>(columns - label_width - 64, 40));
    }
    line += numbers;
    // One column stays free, so that no terminal wraps the line.
    return count_characters(line) < columns ? line : fit_label(line, columns - 1);
}

// Under the lock.
static void erase_bars() {
    if (drawn_lines > 0) {
        fprintf(stderr, "\r\x1b[%zuA\x1b[J", drawn_lines);
        drawn_lines = 0;
    }
}

// Under the lock.
static void draw_bars() {
    fputs(drawn_text.c_str(), stderr);
    drawn_lines = (size_t)std::count(drawn_text.begin(), drawn_text.end(), '\n');
    fflush(stderr);
}

static void show_bars(const std::vector<transfer*>& running) {
    time_point now = std::chrono::steady_clock::now();
    int columns = 0, lines = 0;
    get_terminal_size(&columns, &lines);
    size_t room = lines > 3 ? (size_t)lines - 2 : 1;
    std::string text;
    for (size_t i = 0; i < running.size(); i++) {
        transfer_progress state = get_progress(running[i]);
        double rate = update_rate(&shown[running[i]], state, now);
        if (i < room) {
            text += make_bar_line(running[i], state, rate, (size_t)std::max(columns, 20)) + "\n";
        }
    }
    std::lock_guard<std::mutex> guard(screen_lock);
    if (text != drawn_text || drawn_lines == 0) {
        erase_bars();
        drawn_text = text;
        draw_bars();
    }
}

// A line at every tenth, and every few seconds where a tenth takes longer.
static void show_lines(const std::vector<transfer*>& running) {
    time_point now = std::chrono::steady_clock::now();
    for (transfer* item : running) {
        transfer_progress state = get_progress(item);
        shown_transfer* view = &shown[item];
        double rate = update_rate(view, state, now);
        int64_t done = 0, total = 0;
        get_counts(state, &done, &total);
        int64_t tenth = total > 0 ? done * 10 / total : 0;
        if (view->last_line == time_point()) {
            view->last_line = now;
        }
        double waited = std::chrono::duration<double>(now - view->last_line).count();
        if (waited >= LINE_SECONDS ||
            (tenth > view->last_tenth && tenth < 10 && waited >= SHORTEST_LINE_SECONDS)) {
            view->last_tenth = tenth;
            view->last_line = now;
            print_line(item->label + ": " + describe(state, rate));
        }
    }
}

void start_progress(progress_mode mode) {
    screen_mode = mode;
}

void stop_progress() {
    std::lock_guard<std::mutex> guard(screen_lock);
    erase_bars();
    drawn_text.clear();
}

void show_progress(const std::vector<transfer*>& running) {
    if (screen_mode == PROGRESS_BARS) {
        show_bars(running);
    } else if (screen_mode == PROGRESS_LINES) {
        show_lines(running);
    }
}

void forget_progress(transfer* item) {
    shown.erase(item);
}

void print_line(const std::string& text) {
    std::lock_guard<std::mutex> guard(screen_lock);
    bool redraw = drawn_lines > 0;
    erase_bars();
    fprintf(stderr, "%s\n", text.c_str());
    if (redraw) {
        draw_bars();
    }
}
