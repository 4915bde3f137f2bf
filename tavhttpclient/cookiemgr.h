// The cookie store of the process: in memory, from loop start to loop end.
#ifndef TAVHTTPCLIENT_COOKIEMGR_H
#define TAVHTTPCLIENT_COOKIEMGR_H

#include <stdint.h>

struct cookie_root;

// Creates the store once. Loop thread, at loop start.
bool init_cookie_store(void);
// Frees the store with all it holds. Loop thread, at loop end.
void uninit_cookie_store(void);
// Frees every node and cookie below `root`.
void clear_cookie_store(cookie_root* root);

// Stores the cookies of one Set-Cookie value received from `url`. Any thread.
bool set_cookie_by_http_header(const char* url, const char* value);
// The stored cookies for `url` as "a=1;b=2;", a new text in `*output`; false and null without any.
// Any thread.
bool get_cookie(const char* url, char** output);
// Joins two cookie texts as "a=1; b=2"; a name counts at its first appearance only. Either may be
// null. New text, empty when both are null.
char* merge_cookie_text(const char* first, const char* second);

#endif
