// Stands in for the TLS transport in a build without https: the loop's start finds no table of TLS
// operations, and sessions with an https URL end with TAV_HTTP_ERROR_CODE_NOT_SUPPORT_HTTPS.
#include "tavhttpclient/transport.h"

void register_tls_ops(void) {
    set_tls_ops(nullptr);
}
