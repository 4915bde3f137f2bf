// One run of the program: its transfers, a few at a time.
#ifndef EXAMPLES_TAVFETCH_RUN_H
#define EXAMPLES_TAVFETCH_RUN_H

#include "arguments.h"

// Fetches everything, with the library started, and shuts it down. Returns the exit code; does not
// return when a signal asked the program to stop.
int fetch_all(const arguments& args);

#endif
