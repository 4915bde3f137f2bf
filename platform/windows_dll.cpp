// The entry point of tavhttpclient.dll; no part of the static library.
#include <openssl/crypto.h>

#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    if (reason == DLL_THREAD_DETACH) {
        // The static libcrypto does not learn of it by itself.
        OPENSSL_thread_stop();
    }
    return TRUE;
}
