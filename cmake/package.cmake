# Install rules: the shared library, its headers for C and C++, the CMake package and the .pc file.
# What is installed may be moved as a whole.
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

configure_file(cmake/tavhttpclient.pc.in tavhttpclient.pc @ONLY)
configure_package_config_file(cmake/tavhttpclient-config.cmake.in tavhttpclient-config.cmake
    INSTALL_DESTINATION "${_tav_http_package_dir}")
write_basic_package_version_file(tavhttpclient-config-version.cmake
    COMPATIBILITY SameMajorVersion)

install(TARGETS tavhttpclient EXPORT tavhttpclient-targets)
install(FILES tavhttpclient/tavhttpclient.h tavhttpclient/tavhttpclient.hpp
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/tavhttpclient")
install(EXPORT tavhttpclient-targets NAMESPACE tavhttpclient::
    DESTINATION "${_tav_http_package_dir}")
install(FILES
    "${PROJECT_BINARY_DIR}/tavhttpclient-config.cmake"
    "${PROJECT_BINARY_DIR}/tavhttpclient-config-version.cmake"
    DESTINATION "${_tav_http_package_dir}")
install(FILES "${PROJECT_BINARY_DIR}/tavhttpclient.pc" DESTINATION "${_tav_http_pc_dir}")
