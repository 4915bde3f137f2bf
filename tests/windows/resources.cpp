// What main.cpp of the tests' support counts, on Windows: the process's handles.
#include "support/host.h"

resources count_resources() {
    resources now;
    DWORD handles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handles);
    now.descriptors = handles;
    return now;
}
