// What tavfetch says about a finished transfer.
#ifndef EXAMPLES_TAVFETCH_REPORT_H
#define EXAMPLES_TAVFETCH_REPORT_H

#include "result.h"

// Prints the outcome: the line for people, the JSON line, the headers or the body asked for.
// Returns the exit code that the outcome stands for.
int report_result(const transfer& item, const transfer_result& result);

// The JSON line, without its end.
std::string json_line(const transfer& item, const transfer_result& result);

// The command that goes on where a failed transfer left its file; empty when there is none.
std::string resume_command(const transfer& item, const transfer_result& result);

#endif
