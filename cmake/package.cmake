# Install rules: the shared library, its one header, the CMake package and the .pc file.
include(CMakePackageConfigHelpers)

set(_tav_http_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/tavhttpclient")
configure_file(cmake/tavhttpclient.pc.in tavhttpclient.pc @ONLY)
configure_package_config_file(cmake/tavhttpclient-config.cmake.in tavhttpclient-config.cmake
    INSTALL_DESTINATION "${_tav_http_package_dir}")
write_basic_package_version_file(tavhttpclient-config-version.cmake
    COMPATIBILITY SameMajorVersion)

install(TARGETS tavhttpclient EXPORT tavhttpclient-targets)
install(FILES tavhttpclient/tavhttpclient.h
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/tavhttpclient")
install(EXPORT tavhttpclient-targets NAMESPACE tavhttpclient::
    DESTINATION "${_tav_http_package_dir}")
install(FILES
    "${PROJECT_BINARY_DIR}/tavhttpclient-config.cmake"
    "${PROJECT_BINARY_DIR}/tavhttpclient-config-version.cmake"
    DESTINATION "${_tav_http_package_dir}")
install(FILES "${PROJECT_BINARY_DIR}/tavhttpclient.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
