// Everything that depends on the system: the terminal, the program's own streams, signals. One file
// for each system implements it.
#ifndef EXAMPLES_TAVFETCH_SYSTEM_H
#define EXAMPLES_TAVFETCH_SYSTEM_H

#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

// True when standard error is a terminal that understands cursor movement.
bool is_terminal();

// True when standard output is a terminal.
bool is_output_terminal();

// Columns and lines of the terminal of standard error; 80 by 24 when unknown.
void get_terminal_size(int* columns, int* lines);

// Makes standard output take bytes as they are, and a closed pipe an error instead of a signal.
void prepare_streams();

// The command line in UTF-8, the program's name included.
std::vector<std::string> utf8_arguments(int argc, char** argv);

// Opens a file of any kind for writing bytes; null with errno set.
FILE* open_stream(const std::string& path);

// Makes a folder that nobody else may enter. False, with `error` clear: the name is taken.
bool make_private_folder(const std::filesystem::path& path, std::error_code* error);

// True for names that stand for a device in every directory.
bool is_device_name(const std::string& name);

// From here on the first request to stop is kept for pending_signal; a second one ends the process.
void watch_signals();

// Keeps the threads that are started meanwhile from taking signals.
void hold_signals(bool hold);

// The number of the signal that asked the program to stop; 0 when there was none.
int pending_signal();

// Ends the process the way the signal would have.
[[noreturn]] void end_by_signal(int number);

#endif
