// Name lookups that can be given up, though the system goes on with them. Loop thread only.
#ifndef TAVHTTPCLIENT_UVLOOKUP_H
#define TAVHTTPCLIENT_UVLOOKUP_H

#include <stdint.h>
#include <uv.h>

struct name_lookup;

// status     0 or libuv's error.
// addresses  valid during the call; null on failure.
typedef void (*name_lookup_cb)(void* user_data, int status, const struct addrinfo* addresses);

// Looks the TCP addresses of `host` up; any family that this machine has.
//
// Returns  0: `*lookup` is the caller's until `callback` is called, once, on a later turn, or until
//          it is given up. Else libuv's error, and nothing is called.
int start_name_lookup(uv_loop_t* loop, const char* host, void* user_data, name_lookup_cb callback,
                      name_lookup** lookup);
// Nobody waits for the result any more: nothing is called.
void give_up_name_lookup(name_lookup* lookup);

// The end of the loop: cancels the lookups that have not begun and takes the others, whose users
// get UV_ECANCELED within the call, from the loop as far as that is possible. How many of the
// latest loop the system has not given back yet.
int32_t abandon_name_lookups(void);

#endif
