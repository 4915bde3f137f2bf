// What a library with threads needs to live in somebody's process, on Windows.
#include <openssl/crypto.h>

#include "platform/win_thread.h"

void platform_keep_loaded(void) {
    static const WCHAR here = 0;
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       &here, &module);
    // At the end of the process the other threads are gone, and what they had locked is locked for
    // ever: nothing is to be cleaned up then.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
}
