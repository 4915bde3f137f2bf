// Where the body of a transfer goes.
#ifndef EXAMPLES_TAVFETCH_TARGET_H
#define EXAMPLES_TAVFETCH_TARGET_H

#include <set>
#include <string>

#include "arguments.h"

enum target_kind {
    TARGET_FILE,       // a file whose name is known
    TARGET_AUTO_FILE,  // a file of the library's choosing
    TARGET_MEMORY,     // the library's memory, printed at the end
    TARGET_STREAM,     // standard output, as the bytes arrive
    TARGET_NONE        // a request for headers
};

struct transfer_target {
    target_kind kind;
    std::string path;  // TARGET_FILE only
};

// The last component of the URL's path as a file name; "index.html" when there is none.
std::string name_of_url(const std::string& url);

// Chooses the target of one URL. Names that are taken, on disk or by this run, get .1, .2, ...;
// not with --resume, which continues the file that is there. The name is added to `taken`.
transfer_target choose_target(const arguments& args, const std::string& url,
                              std::set<std::string>* taken);

// Creates --dir and gives the library's own files the same place. Returns "" or a complaint.
// The library must be started.
std::string prepare_directory(const arguments& args);

#endif
