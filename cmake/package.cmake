# Install rules: the libraries, their headers for C and C++, the CMake package and the .pc files.
# What is installed may be moved as a whole. Components, which are the Debian packages too: library,
# dev, tool.
include(CMakePackageConfigHelpers)

set(_tav_http_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/tavhttpclient")
set(_tav_http_pc_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

# The .pc file finds the prefix from its own place, unless that was set to an absolute path, which
# says nothing about the prefix.
if(IS_ABSOLUTE "${_tav_http_pc_dir}")
    set(tav_http_pc_prefix "${CMAKE_INSTALL_PREFIX}")
else()
    file(RELATIVE_PATH tav_http_pc_prefix "/prefix/${_tav_http_pc_dir}" "/prefix")
    string(REGEX REPLACE "/$" "" tav_http_pc_prefix "\${pcfiledir}/${tav_http_pc_prefix}")
endif()
foreach(dir IN ITEMS LIBDIR INCLUDEDIR)
    string(TOLOWER "tav_http_pc_${dir}" _name)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
        set(${_name} "${CMAKE_INSTALL_${dir}}")
    else()
        set(${_name} "\${prefix}/${CMAKE_INSTALL_${dir}}")
    endif()
endforeach()

configure_package_config_file(cmake/tavhttpclient-config.cmake.in tavhttpclient-config.cmake
    INSTALL_DESTINATION "${_tav_http_package_dir}")
write_basic_package_version_file(tavhttpclient-config-version.cmake
    COMPATIBILITY SameMajorVersion)

if(_tav_http_shared)
    configure_file(cmake/tavhttpclient.pc.in tavhttpclient.pc @ONLY)
    install(TARGETS tavhttpclient EXPORT tavhttpclient-targets
        RUNTIME COMPONENT library
        LIBRARY COMPONENT library NAMELINK_COMPONENT dev
        ARCHIVE COMPONENT dev)
    install(EXPORT tavhttpclient-targets NAMESPACE tavhttpclient::
        DESTINATION "${_tav_http_package_dir}" COMPONENT dev)
    install(FILES "${PROJECT_BINARY_DIR}/tavhttpclient.pc"
        DESTINATION "${_tav_http_pc_dir}" COMPONENT dev)
endif()
if(TAV_HTTP_BUILD_STATIC OR NOT _tav_http_shared)
    set(_tav_http_pc_ssl "")
    if(TAV_HTTP_WITH_TLS)
        set(_tav_http_pc_ssl " libssl")
    endif()
    configure_file(cmake/tavhttpclient-static.pc.in tavhttpclient-static.pc @ONLY)
    install(TARGETS tavhttpclient_static EXPORT tavhttpclient-static-targets COMPONENT dev)
    install(EXPORT tavhttpclient-static-targets NAMESPACE tavhttpclient::
        DESTINATION "${_tav_http_package_dir}" COMPONENT dev)
    install(FILES "${PROJECT_BINARY_DIR}/tavhttpclient-static.pc"
        DESTINATION "${_tav_http_pc_dir}" COMPONENT dev)
    install(FILES cmake/dependencies.cmake cmake/FindHttpParser.cmake
        DESTINATION "${_tav_http_package_dir}" COMPONENT dev)
endif()
install(FILES
    tavhttpclient/tavhttpclient.h
    tavhttpclient/tavhttpclient.hpp
    tavhttpclient/tavhttpclient_typed.h
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/tavhttpclient" COMPONENT dev)
install(FILES
    "${PROJECT_BINARY_DIR}/tavhttpclient-config.cmake"
    "${PROJECT_BINARY_DIR}/tavhttpclient-config-version.cmake"
    DESTINATION "${_tav_http_package_dir}" COMPONENT dev)

if(TAV_HTTP_DEB)
    include(deb)
endif()
