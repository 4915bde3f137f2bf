// The library frame: error-code names and the process-wide settings.
#ifndef TAVHTTPCLIENT_HTTPINIT_H
#define TAVHTTPCLIENT_HTTPINIT_H

#include <uv.h>

#include "tavhttpclient/tavhttpclient.h"

// Settings that live from loop start to loop end. All fields are guarded by `lock`, which outlives
// the record so that an export can race with a stop.
struct global_settings {
    uv_rwlock_t* lock;
    char* download_directory;   // normalised, ends with '/'; null: none
    proxy_info* default_proxy;  // own copy; null: none
    uint8_t use_third_lsp;      // 1: sockets through the layered providers
};

// Constant name of a code; "TAV_HTTP_ERROR_CODE_UNKNOWN" for any value without one. Any thread.
const char* error_code_name(uint32_t code);

// Loop thread, at loop start and loop end.
bool init_global_settings(void);
void uninit_global_settings(void);

// Copies; null for null and without memory. The copy is freed with free_proxy_info (null is
// allowed).
proxy_info* copy_proxy_info(const proxy_info* proxy);
void free_proxy_info(proxy_info* proxy);

// A copy of the default proxy, or null. Any thread.
proxy_info* get_default_proxy_copy(void);
// The same in `*copy`. False: there is one, but no memory for its copy.
bool copy_default_proxy(proxy_info** copy);
// A copy of the download directory, or null. Any thread.
char* get_custom_download_directory(void);
// The switch of tavHTTPSetUseThirdLSP; false without settings. Any thread.
bool get_use_third_lsp(void);

uint32_t set_default_proxy(const proxy_info* proxy);
uint32_t set_custom_download_directory(const char* directory);

// tavHTTPSetConfig's numbers; single relaxed loads. Any thread.
uint32_t config_max_running_count(void);
uint32_t config_keep_alive_max_requests(void);

#endif
