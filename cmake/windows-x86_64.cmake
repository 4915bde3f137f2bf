# Toolchain: Windows on x86_64 with Debian's MinGW compilers, against scripts/windows-deps.
set(tav_http_windows_host x86_64-w64-mingw32)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
include("${CMAKE_CURRENT_LIST_DIR}/windows.cmake")
