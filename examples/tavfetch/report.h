// What tavfetch says about a finished transfer.
#ifndef EXAMPLES_TAVFETCH_REPORT_H
#define EXAMPLES_TAVFETCH_REPORT_H

#include "transfer.h"

// Prints the outcome: the line for people, the JSON line, the headers or the body asked for.
// Returns the exit code that the outcome stands for.
int report_result(const transfer& item, const transfer_result& result);

#endif
