// Where the body of a transfer goes.
//
// A file is written in a private folder beside its place and moved there when it is complete, so
// that nothing half-written has the name and nothing that has it is lost. --resume and --range
// write in place: there the part is what is wanted.
#ifndef EXAMPLES_TAVFETCH_TARGET_H
#define EXAMPLES_TAVFETCH_TARGET_H

#include <cstdio>
#include <set>
#include <string>

#include "arguments.h"

enum target_kind {
    TARGET_FILE,       // a file whose name is known
    TARGET_AUTO_FILE,  // a file of the library's choosing
    TARGET_MEMORY,     // the library's memory, printed at the end
    TARGET_STREAM,     // standard output, a pipe or a device, as the bytes arrive
    TARGET_NONE        // a request for headers
};

struct transfer_target {
    target_kind kind;
    std::string path;        // the name that the user knows; empty: standard output, or none
    bool replaces = false;   // the name was given; else a file that has it meanwhile is left alone
    std::string working;     // TARGET_FILE: what the library writes
    std::string folder;      // the private folder of `working`; empty: written in place
    FILE* stream = nullptr;  // TARGET_STREAM
};

// Chooses the target of one URL. Names that are taken, on disk or by this run, get .1, .2, ...;
// not with --resume, which continues the file that is there. The name is added to `taken`.
transfer_target choose_target(const arguments& args, const std::string& url,
                              std::set<std::string>* taken);

// Finds out what the path is, and makes the folder or opens the stream. Returns "" or a complaint.
std::string open_target(transfer_target* target, const arguments& args);

// Leaves the file in place as it is and goes on in a folder. Returns "" or a complaint.
std::string move_to_folder(transfer_target* target);

// Gives the complete file its name and its predecessor's mode.
//
// better_name  takes the place of the chosen name when it is not empty.
// Returns      "" or a complaint; `path` is where the file is.
std::string settle_target(transfer_target* target, const std::string& better_name);

// Closes the stream and removes the folder. False when the stream did not take its last bytes.
bool close_target(transfer_target* target);

// Gives the file this time of its last change, in seconds since 1970 UTC.
void set_file_time(const std::string& path, int64_t seconds);

// Creates --dir and gives the library's own files the same place. Returns "" or a complaint.
// The library must be started.
std::string prepare_directory(const arguments& args);

#endif
