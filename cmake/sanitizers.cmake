# tav_http_sanitizers: every target of the project links it; TAV_HTTP_SANITIZE fills it.
add_library(tav_http_sanitizers INTERFACE)

if(TAV_HTTP_SANITIZE STREQUAL "address")
    # No vptr checks: they need the type information that the library is built without.
    set(_tav_http_sanitize
        -fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=all)
elseif(TAV_HTTP_SANITIZE STREQUAL "thread")
    set(_tav_http_sanitize -fsanitize=thread)
elseif(TAV_HTTP_SANITIZE)
    message(FATAL_ERROR "TAV_HTTP_SANITIZE is '${TAV_HTTP_SANITIZE}', not address or thread")
endif()

if(TAV_HTTP_SANITIZE)
    target_compile_options(tav_http_sanitizers INTERFACE
        ${_tav_http_sanitize} -fno-omit-frame-pointer)
    target_link_options(tav_http_sanitizers INTERFACE ${_tav_http_sanitize})
endif()
