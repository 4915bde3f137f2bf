// From the bytes of one response to the fields of http_response.
#ifndef TAVHTTPCLIENT_MESSAGE_PARSER_H
#define TAVHTTPCLIENT_MESSAGE_PARSER_H

#include <http_parser.h>
#include <stdint.h>

struct http_response;

// One per response. Worker thread of the response's parse work.
struct response_parser {
    http_parser parser;     // its data is the http_response
    uint32_t header_state;  // 0 idle, 1 reading a name, 2 reading a value
    char* pending_name;
    char* pending_value;
};

// Feeds the next `count` received bytes. False: the bytes are no valid continuation of a response
// (or an argument is null or 0).
bool parse_response_message(http_response* response, const char* data, uint32_t count);

void free_response_parser(response_parser* parser);

#endif
