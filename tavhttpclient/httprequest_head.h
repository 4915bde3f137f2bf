// The request head, and what of the body its lengths depend on.
#ifndef TAVHTTPCLIENT_HTTPREQUEST_HEAD_H
#define TAVHTTPCLIENT_HTTPREQUEST_HEAD_H

#include <stdint.h>

struct http_options;
struct http_request;
struct text_buffer;

// Builds the head of `request` from `options` in `header`: refreshes host, path, target and range
// from the URL and the options, fills the headers and tailers of multipart items, turns form fields
// into one url-encoded item, and counts total_bytes. Worker thread. False: not sendable.
bool _build_request_header(http_request* request, http_options* options, text_buffer* header);
// Appends the Range line; end -1 is open, a negative end with it a suffix.
bool _add_header_field_range(text_buffer* buffer, int64_t start, int64_t end);
// New multipart boundary of 3 to 23 characters.
char* make_boundary(void);

#endif
