// The body items of a request, made from the session's options.
#ifndef TAVHTTPCLIENT_HTTPREQUEST_ITEMS_H
#define TAVHTTPCLIENT_HTTPREQUEST_ITEMS_H

#include <stdint.h>

#include "tavhttpclient/tavhttpclient.h"

// Turns the session's options into request->upload_item_list, opens the files in it, and builds the
// head. Worker thread. Returns 0 or the code that ends the request.
uint32_t http_request_prepare(http_session* session);

#endif
