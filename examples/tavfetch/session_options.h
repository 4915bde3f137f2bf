// From the command line to the options of a session.
#ifndef EXAMPLES_TAVFETCH_SESSION_OPTIONS_H
#define EXAMPLES_TAVFETCH_SESSION_OPTIONS_H

#include "arguments.h"
#include "target.h"
#include "tavhttpclient/tavhttpclient.h"

// Opens a session for `url` with every option but the callbacks set. Null when it failed.
http_session* open_session(const arguments& args, const std::string& url,
                           const transfer_target& target, bool resuming, void* user_data,
                           complete_callback callback);

#endif
