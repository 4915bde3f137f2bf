// Idle keep-alive connections, by scheme kind, host and port; last in, first out. Loop thread only.
#ifndef TAVHTTPCLIENT_CONNECTIONPOOL_H
#define TAVHTTPCLIENT_CONNECTIONPOOL_H

#include "tavhttpclient/transport.h"

// Gives an idle connection to the pool. False: the pool did not take it.
bool add_connection_to_pool(http_connection* conn);
// Takes a usable connection out, its reuse_count increased; null without one.
http_connection* get_connection_from_pool(int32_t is_https, const char* host, uint16_t port);
// Closes all idle connections and frees the pool. End of the loop: their handles belong to it.
void release_connection_pool(void);

#endif
