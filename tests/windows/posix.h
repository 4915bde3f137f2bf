// Included before everything else of the suite's: the few names of POSIX that programs use beside
// what tests need, for tests that CMakeLists.txt leaves out or that ask for nothing else of them.
#include <winsock2.h>

#include <stdlib.h>
#include <windows.h>
#undef far  // the tests' own word

#define F_GETFD 1
inline int fcntl(SOCKET, int) {
    return -1;
}
inline int setenv(const char* name, const char* value, int) {
    return _putenv_s(name, value);
}
using cpu_set_t = DWORD_PTR;
#define CPU_ZERO(set) (*(set) = 0)
#define CPU_SET(cpu, set) (*(set) |= DWORD_PTR{1} << (cpu))
inline int sched_getcpu() {
    return static_cast<int>(GetCurrentProcessorNumber());
}
inline int sched_getaffinity(int, size_t, cpu_set_t* set) {
    cpu_set_t of_system;
    return GetProcessAffinityMask(GetCurrentProcess(), set, &of_system) ? 0 : -1;
}
inline int sched_setaffinity(int, size_t, const cpu_set_t* set) {
    return SetProcessAffinityMask(GetCurrentProcess(), *set) ? 0 : -1;
}
// The catalogue is Wine's: test_windows.cpp.
inline void platform_set_protocol_catalog(const WSAPROTOCOL_INFOW*, int) {
}
inline void platform_fail_enum_protocols(int) {
}
