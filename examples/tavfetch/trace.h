// What --verbose and --log show.
#ifndef EXAMPLES_TAVFETCH_TRACE_H
#define EXAMPLES_TAVFETCH_TRACE_H

#include "transfer.h"

// Nothing without --verbose. Any thread.
void trace_connection(const transfer& item, const std::string& address);
void trace_request(const transfer& item, const char* data, size_t length);
void trace_response(const transfer& item, http_session* session);

// The text with the values of header lines that log in left out.
std::string without_secrets(const std::string& text);

#endif
