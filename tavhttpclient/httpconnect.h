// A connected http_connection for a URL: from the pool, directly, or through a proxy, with TLS for
// https. Loop thread only.
//
// http_connect_start -> _on_async_start_connect -> (direct | proxy) -> _on_tcp_connected
//   -> (TLS handshake) -> _notify_connection_result -> connect_callback
#ifndef TAVHTTPCLIENT_HTTPCONNECT_H
#define TAVHTTPCLIENT_HTTPCONNECT_H

#include <stdint.h>

#include "tavhttpclient/transport.h"

// Gets a connection for `url`.
//
// proxy            copied; null or type 0: direct.
// connect_timeout  ms for resolution and connect together; 0 or less: 15000.
// no_pool          true: always a new connection.
// expected_cname   null or empty: its name is not checked.
// session_timeout  accepted, not used.
// Returns 0: _on_http_connect_result is called once, on a later turn; any other code: it is not.
uint32_t http_connect_start(const char* url, const proxy_info* proxy, http_session* owner,
                            int32_t connect_timeout, bool no_pool, bool hide_url,
                            const char* expected_cname, int32_t session_timeout);

// Ends the pending network step of a cancelled session at once: a lookup, connect attempts, the
// handshake with a proxy, a TLS handshake, a send or a receive. The step's result comes on a later
// turn as after its time-out, with the same lines, and the session goes on from there as it does
// when it was cancelled. A session without a pending network step goes on by itself.
//
// session  its cancel flag is set.
void abort_network_step(http_session* session);

// Closes every connection that still exists, pooled or held by a session. End of the loop.
void http_connect_close_all(void);

#endif
