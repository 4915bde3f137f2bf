# What the library links, for its own build and for hosts of the installed static library.
# Sets tavhttpclient_dependencies; TAV_HTTP_WITH_TLS decides about https.
find_package(PkgConfig REQUIRED)
if(NOT TARGET PkgConfig::libuv)
    pkg_check_modules(libuv REQUIRED IMPORTED_TARGET libuv>=1.44)
endif()
find_package(ZLIB REQUIRED)
# libcrypto computes the MD5 of bodies, so it is needed without TLS too.
find_package(OpenSSL REQUIRED)
find_package(HttpParser REQUIRED)
find_package(Threads REQUIRED)

set(tavhttpclient_dependencies
    PkgConfig::libuv
    HttpParser::HttpParser
    ZLIB::ZLIB
    $<$<BOOL:${TAV_HTTP_WITH_TLS}>:OpenSSL::SSL>
    OpenSSL::Crypto
    Threads::Threads
    "$<$<PLATFORM_ID:Windows>:ws2_32;crypt32;bcrypt;ole32>")
