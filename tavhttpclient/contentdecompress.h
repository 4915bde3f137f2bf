// Streaming decoders of gzip and deflate bodies.
#ifndef TAVHTTPCLIENT_CONTENTDECOMPRESS_H
#define TAVHTTPCLIENT_CONTENTDECOMPRESS_H

#include <stdint.h>
#include <zlib.h>

#include "tavhttpclient/util.h"

// One per response; zero at creation. Used by one thread at a time.
struct content_decoder {
    uint32_t initialised;  // 1 while `stream` is set up
    z_stream stream;
};

// Appends the decoded form of one body piece to `output`. False: the data is damaged or memory is
// short; the stream has then been ended.
bool decompress_gzip(content_decoder* decoder, const void* data, uint32_t length,
                     text_buffer* output);
bool decompress_deflate(content_decoder* decoder, const void* data, uint32_t length,
                        text_buffer* output);
bool inflate_stream(content_decoder* decoder, text_buffer* output);
// Ends the stream if it is set up; null is allowed.
void release_content_decoder(content_decoder* decoder);

#endif
