# tav_http_warnings: for the library's own sources.
# tav_http_test_warnings: without the conversion warnings, which say little about test code.
add_library(tav_http_warnings INTERFACE)
add_library(tav_http_test_warnings INTERFACE)

if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang" AND NOT MSVC)
    # A format chosen between two literals is house style.
    target_compile_options(tav_http_test_warnings INTERFACE
        -Wall -Wextra -Wshadow -Wformat=2 -Wno-format-nonliteral
        $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
        $<$<BOOL:${TAV_HTTP_WERROR}>:-Werror>)
    target_compile_options(tav_http_warnings INTERFACE -Wconversion)
    target_link_libraries(tav_http_warnings INTERFACE tav_http_test_warnings)
endif()
