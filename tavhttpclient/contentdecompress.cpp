// Streaming decoders of gzip and deflate bodies.
//
// decompress_gzip | decompress_deflate -> inflate_stream
//
// The stream lives from the first piece of a body to its own end or to the first failure; a piece
// that comes after either starts a new one.
#include "tavhttpclient/contentdecompress.h"

#include <stdlib.h>
#include <string.h>

#include "tavhttpclient/log.h"

enum {
    INFLATE_BLOCK_SIZE = 131072
};

enum {
    WINDOW_BITS_ZLIB = 15,
    WINDOW_BITS_GZIP_OR_ZLIB = 47,  // 32 more: zlib tells them apart
    WINDOW_BITS_RAW_DEFLATE = -15
};

void release_content_decoder(content_decoder* decoder) {
    if (decoder == nullptr || decoder->initialised == 0) {
        return;
    }
    decoder->initialised = 0;
    inflateEnd(&decoder->stream);
}

static int _inflate_block(z_stream* stream, uint8_t* block) {
    stream->next_out = block;
    stream->avail_out = INFLATE_BLOCK_SIZE;
    return inflate(stream, Z_SYNC_FLUSH);
}

// Many servers send "deflate" without the zlib header, so a first pass that finds bad data is
// repeated once as raw deflate. That holds for the first pass of every piece.
static int _inflate_first_block(z_stream* stream, uint8_t* block) {
    Bytef* input = stream->next_in;
    uInt count = stream->avail_in;

    int code = _inflate_block(stream, block);
    if (code != Z_DATA_ERROR) {
        return code;
    }
    inflateEnd(stream);
    code = inflateInit2(stream, WINDOW_BITS_RAW_DEFLATE);
    if (code != Z_OK) {
        return code;
    }
    stream->next_in = input;
    stream->avail_in = count;
    return _inflate_block(stream, block);
}

static bool _append_block(const z_stream* stream, const uint8_t* block, text_buffer* output) {
    return text_buffer_append(output, block, INFLATE_BLOCK_SIZE - stream->avail_out);
}

// Decodes the whole piece. Z_OK: the stream waits for more; Z_STREAM_END: it is complete; any other
// code: it failed.
static int _inflate_piece(z_stream* stream, uint8_t* block, text_buffer* output) {
    int code = _inflate_first_block(stream, block);
    while (code == Z_OK || code == Z_STREAM_END) {
        if (!_append_block(stream, block, output)) {
            return Z_MEM_ERROR;
        }
        // Behind a block that came out full there may be more output, even without more input.
        if (code == Z_STREAM_END || (stream->avail_in == 0 && stream->avail_out != 0)) {
            return code;
        }
        code = _inflate_block(stream, block);
        if (code == Z_BUF_ERROR && stream->avail_in == 0) {
            return Z_OK;  // The full block was the last of the piece.
        }
    }
    return code;
}

bool inflate_stream(content_decoder* decoder, text_buffer* output) {
    if (!LOG_ASSERT(decoder != nullptr && output != nullptr)) {
        return false;
    }
    uint8_t* block = (uint8_t*)malloc(INFLATE_BLOCK_SIZE);
    if (block == nullptr) {
        release_content_decoder(decoder);
        return false;
    }
    int code = _inflate_piece(&decoder->stream, block, output);
    free(block);
    if (code == Z_OK) {
        return true;
    }
    // What is left of the piece behind the end of the stream is discarded.
    decoder->initialised = 0;
    bool ended = inflateEnd(&decoder->stream) == Z_OK;
    return code == Z_STREAM_END && ended;
}

static bool _decompress(content_decoder* decoder, int window_bits, const void* data,
                        uint32_t length, text_buffer* output) {
    if (decoder->initialised == 0) {
        memset(&decoder->stream, 0, sizeof(decoder->stream));
        if (inflateInit2(&decoder->stream, window_bits) != Z_OK) {
            return false;
        }
        decoder->initialised = 1;
    }
    decoder->stream.next_in = (Bytef*)data;  // zlib only reads it
    decoder->stream.avail_in = length;
    return inflate_stream(decoder, output);
}

bool decompress_gzip(content_decoder* decoder, const void* data, uint32_t length,
                     text_buffer* output) {
    if (!LOG_ASSERT(decoder != nullptr && output != nullptr)) {
        return false;
    }
    return _decompress(decoder, WINDOW_BITS_GZIP_OR_ZLIB, data, length, output);
}

bool decompress_deflate(content_decoder* decoder, const void* data, uint32_t length,
                        text_buffer* output) {
    if (!LOG_ASSERT(decoder != nullptr && output != nullptr)) {
        return false;
    }
    return _decompress(decoder, WINDOW_BITS_ZLIB, data, length, output);
}
