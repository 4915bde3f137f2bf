// From the command line to the options of a session.
#ifndef EXAMPLES_TAVFETCH_SESSION_OPTIONS_H
#define EXAMPLES_TAVFETCH_SESSION_OPTIONS_H

#include "transfer.h"

// Opens a session for the transfer's current URL with every option but the callbacks set. Null when
// it failed.
http_session* open_session(transfer* item, complete_callback callback);

// True for the header lines that only the host of the first URL gets.
bool is_secret_header(const std::string& name);

#endif
