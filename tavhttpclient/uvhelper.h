// Resolve and connect within a time budget. Loop thread only.
#ifndef TAVHTTPCLIENT_UVHELPER_H
#define TAVHTTPCLIENT_UVHELPER_H

#include <stdint.h>
#include <uv.h>

// status     0, or an error code.
// tcp        on success the connected handle, owned by the callee (close_uv_tcp); else null.
// addr       valid during the call; null after a resolution time-out.
typedef void (*uv_connect_timeout_cb)(uint32_t status, uv_tcp_t* tcp,
                                      const struct sockaddr_storage* addr, void* user_data);

// True when nobody waits for the result any more: the operation goes no further then.
typedef bool (*uv_connect_cancel_probe)(void* user_data);

// Resolves `host` and connects over IPv4 and IPv6 at once.
//
// timeout  ms for both together; 0 or less: none.
// probe    may be null. Asked before the resolution, before the connect, and now and then while an
//          attempt that could not even be started keeps the operation from ending; once true the
//          operation ends with FAIL_CONNECT.
// Returns  0: `callback` is called once, on a later turn; any other code: it is not.
uint32_t uv_connect_timeout(const char* host, uint16_t port, int32_t timeout, void* user_data,
                            uv_connect_timeout_cb callback, uv_connect_cancel_probe probe);

// Ends the pending operation of `user_data`, whose probe is true from now on, as its time-outs
// would: the callback follows on a later turn. Without such an operation nothing happens.
void uv_connect_abort(void* user_data);

// The end of the loop: ends every operation, so that the loop can. How many lookups the system has
// not given back yet.
int32_t uv_connect_abandon_lookups(void);

#endif
