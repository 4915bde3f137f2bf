// Where the body of a response goes: to the host, into memory, or into a file.
#ifndef TAVHTTPCLIENT_HTTPRESPONSE_BODY_H
#define TAVHTTPCLIENT_HTTPRESPONSE_BODY_H

#include <stdint.h>

#include "tavhttpclient/tavhttpclient.h"

struct http_response;

// Hands the new body bytes to the host and puts them into the file or the memory body; opens the
// file first and closes it behind the last byte. Worker thread of the write work.
//
// Returns 0 or the code that ends the response; a file may then still be open.
uint32_t write_response_body(http_session* session);

// Stores the digest of the body handed over so far in md5_digest. Once per response. False: there
// is none.
bool finish_body_md5(http_response* response);
// Any thread; harmless without a digest.
void free_body_md5(http_response* response);

#endif
