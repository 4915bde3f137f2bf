# What the two Windows toolchain files share; they set tav_http_windows_host.
set(CMAKE_SYSTEM_NAME Windows)

# The compilers with POSIX threads: libstdc++'s threads come with these alone.
set(CMAKE_C_COMPILER ${tav_http_windows_host}-gcc-posix)
set(CMAKE_CXX_COMPILER ${tav_http_windows_host}-g++-posix)
set(CMAKE_RC_COMPILER ${tav_http_windows_host}-windres)

# Nothing of the machine that builds is found, only what was built for Windows.
set(tav_http_windows_deps
    "${CMAKE_CURRENT_LIST_DIR}/../build/windows-deps/${CMAKE_SYSTEM_PROCESSOR}")
set(CMAKE_FIND_ROOT_PATH "${tav_http_windows_deps}" "/usr/${tav_http_windows_host}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_PREFIX_PATH "/")
set(ENV{PKG_CONFIG_LIBDIR} "${tav_http_windows_deps}/lib/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(ZLIB_USE_STATIC_LIBS ON)
set(OPENSSL_USE_STATIC_LIBS ON)
