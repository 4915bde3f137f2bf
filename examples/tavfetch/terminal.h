// The few things that depend on the system: the terminal and the program's own streams.
#ifndef EXAMPLES_TAVFETCH_TERMINAL_H
#define EXAMPLES_TAVFETCH_TERMINAL_H

#include <string>

// True when standard error is a terminal that understands cursor movement.
bool is_terminal();

// Columns and lines of that terminal; 80 by 24 when unknown.
void get_terminal_size(int* columns, int* lines);

// Makes standard output take bytes as they are, and a closed pipe an error instead of a signal.
void prepare_streams();

// `text` without control characters: what a server names must not steer the terminal.
std::string printable(const std::string& text);

#endif
