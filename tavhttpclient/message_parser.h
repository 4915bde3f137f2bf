// From the bytes of one response to the fields of http_response.
#ifndef TAVHTTPCLIENT_MESSAGE_PARSER_H
#define TAVHTTPCLIENT_MESSAGE_PARSER_H

#include <http_parser.h>
#include <stdint.h>

enum {
    // Header bytes that one response may have: names, values and reason phrases of its interim
    // heads, its final head and its trailer, with MIN_LINE_BYTES for the rest of each line. A
    // server decides how many there are, and most of them are kept.
    MAX_HEADER_BYTES = 1048576,
    MIN_LINE_BYTES = 4
};

struct http_response;

// One per response. Worker thread of the response's parse work.
struct response_parser {
    http_parser parser;     // its data is the http_response
    uint32_t header_state;  // 0 idle, 1 reading a name, 2 reading a value
    char* pending_name;
    char* pending_value;
    uint32_t header_bytes;  // as MAX_HEADER_BYTES counts them
};

// Feeds the next `count` received bytes. What comes behind the end of the response is discarded,
// and noted in response->has_surplus. False: the bytes are no valid continuation of a response, or
// its head is too long (or an argument is null or 0).
bool parse_response_message(http_response* response, const char* data, uint32_t count);

void free_response_parser(response_parser* parser);

#endif
