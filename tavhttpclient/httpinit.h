// The library frame: start-up and shut-down, and the download directory's creation.
#ifndef TAVHTTPCLIENT_HTTPINIT_H
#define TAVHTTPCLIENT_HTTPINIT_H

#include <stdint.h>

// Creates `directory` (UTF-8) and makes it the download directory; null or empty: none. Any thread;
// blocks. Result: 0, NOT_INITIALIZED, OUT_OF_MEMORY or FAIL_CREATE_DIRECTORY; after the last two
// there is none.
uint32_t set_custom_download_directory(const char* directory);

#endif
