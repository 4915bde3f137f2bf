#include "tavhttpclient/hostcall.h"

static thread_local host_call_function before_call = nullptr;

void before_host_call(void) {
    if (before_call != nullptr) {
        before_call();
    }
}

void set_before_host_call(host_call_function function) {
    before_call = function;
}
