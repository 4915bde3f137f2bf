# Toolchain: Windows on i686 with Debian's MinGW compilers, against scripts/windows-deps.
set(tav_http_windows_host i686-w64-mingw32)
set(CMAKE_SYSTEM_PROCESSOR i686)
include("${CMAKE_CURRENT_LIST_DIR}/windows.cmake")
