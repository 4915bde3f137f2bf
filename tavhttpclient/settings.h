// Settings of the process: the default proxy, the download directory, the switch for layered
// providers, and the numbers of tavHTTPSetConfig. Any thread, under a lock of their own; what is
// handed out is a copy.
#ifndef TAVHTTPCLIENT_SETTINGS_H
#define TAVHTTPCLIENT_SETTINGS_H

#include <stdint.h>

#include "tavhttpclient/tavhttpclient.h"

// Loop thread, at loop start and loop end. False: out of memory.
bool init_global_settings(void);
void uninit_global_settings(void);
// True between the two.
bool has_global_settings(void);

// Copies; null for null and without memory. The copy is freed with free_proxy_info (null is
// allowed).
proxy_info* copy_proxy_info(const proxy_info* proxy);
void free_proxy_info(proxy_info* proxy);

// Stores a copy; null clears it. Result: 0, NOT_INITIALIZED or OUT_OF_MEMORY.
uint32_t set_default_proxy(const proxy_info* proxy);
// A copy of the default proxy, or null.
proxy_info* get_default_proxy_copy(void);
// The same in `*copy`. False: there is one, but no memory for its copy.
bool copy_default_proxy(proxy_info** copy);

// Takes over `directory`: normalised heap text, or null for none. False: the library does not run,
// and the text is gone.
bool store_download_directory(char* directory);
// A copy of the download directory, or null.
char* get_custom_download_directory(void);

// The switch of tavHTTPSetUseThirdLSP; false while the library does not run.
bool get_use_third_lsp(void);

// tavHTTPSetConfig's numbers; single relaxed loads.
uint32_t config_max_running_count(void);
uint32_t config_keep_alive_max_requests(void);

#endif
