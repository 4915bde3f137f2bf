// Progress on standard error: bars that are redrawn in place on a terminal, plain lines elsewhere.
#ifndef EXAMPLES_TAVFETCH_PROGRESS_H
#define EXAMPLES_TAVFETCH_PROGRESS_H

#include <string>
#include <vector>

#include "transfer.h"

enum progress_mode {
    PROGRESS_OFF,
    PROGRESS_LINES,
    PROGRESS_BARS
};

void start_progress(progress_mode mode);

// Takes the bars off the screen.
void stop_progress();

// Shows the running transfers. Main thread; call it ten times a second.
void show_progress(const std::vector<transfer*>& running);

// Forgets a transfer that has ended, or is about to begin again.
void forget_progress(transfer* item);

// Prints a line above the bars. Any thread.
void print_line(const std::string& text);

#endif
