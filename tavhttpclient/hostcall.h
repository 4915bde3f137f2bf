// Calls into the host.
//
// The host may block in a callback for as long as it likes, and wait there for anything, another
// session included. So nothing may depend on a thread while it is with the host: whoever calls a
// function of the host on a thread that may be the loop's calls before_host_call() first.
#ifndef TAVHTTPCLIENT_HOSTCALL_H
#define TAVHTTPCLIENT_HOSTCALL_H

typedef void (*host_call_function)(void);

// Runs what the calling thread has installed, if anything. Any thread, with any lock held but those
// of the worker queue.
void before_host_call(void);
// Installs it for the calling thread; null: nothing.
void set_before_host_call(host_call_function function);

#endif
