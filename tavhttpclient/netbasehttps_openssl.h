// The rule by which a certificate's common name is compared with the name that a session expects.
// Pure functions on texts; any thread.
#ifndef TAVHTTPCLIENT_NETBASEHTTPS_OPENSSL_H
#define TAVHTTPCLIENT_NETBASEHTTPS_OPENSSL_H

#include <stdint.h>

// Lower-cases `subject` in place and cuts its common name out of it.
//
// subject  one "KEY=value" line per entry, zero-terminated.
// Returns  the common name inside `subject`, terminated there; null without one. A common name in
//          the first line does not count: such a certificate is refused.
char* find_common_name(char* subject);

// True when a certificate for `name` may serve `expected`; case does not matter.
//
// name  a host name, or "*." and the rest of one: then `expected` may be that rest itself or have
//       any number of labels in front of it. An asterisk without a dot behind it matches nothing.
bool common_name_matches(const char* name, const char* expected);

#endif
