# Debian packages of the library, of what is needed to build hosts, and of the tool:
#
#     cmake --preset deb && cmake --build --preset deb
set(TAV_HTTP_MAINTAINER "tavHTTPClient maintainers <maintainers@tavhttpclient.example>"
    CACHE STRING "Who answers for the packages: NAME <ADDRESS>")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "${TAV_HTTP_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library dev tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# What a package says of its changes, packed, and of its licence; the triggers renew the linker's
# cache, and shlibs is what packages of hosts get as their dependency.
string(TIMESTAMP _now "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE "${PROJECT_BINARY_DIR}/changelog" "tavhttpclient (${PROJECT_VERSION}) unstable; "
    "urgency=medium\n\n  * See CHANGELOG.md of the source.\n\n -- ${TAV_HTTP_MAINTAINER}  ${_now}\n")
execute_process(COMMAND gzip -9nf "${PROJECT_BINARY_DIR}/changelog" COMMAND_ERROR_IS_FATAL ANY)
file(WRITE "${PROJECT_BINARY_DIR}/copyright"
    "tavHTTPClient: its owner has chosen no licence yet. NOTICE.md of the source names what it\n"
    "builds on, which these packages do not contain.\n")
file(WRITE "${PROJECT_BINARY_DIR}/shlibs"
    "libtavhttpclient ${PROJECT_VERSION_MAJOR} libtavhttpclient${PROJECT_VERSION_MAJOR} "
    "(>= ${PROJECT_VERSION})\n")
file(WRITE "${PROJECT_BINARY_DIR}/triggers" "activate-noawait ldconfig\n")

set(_about "It gives a program transfers in the background: bodies in memory, downloads\n\
to files with resumption and ranges, uploads, redirects, cookies, compression,\n\
kept connections and proxies. The program calls fourteen C functions and\n\
learns of progress and results through callbacks.\n")

# _tav_http_deb(COMPONENT PACKAGE SECTION DESCRIPTION [DEPENDS])
function(_tav_http_deb component package section description)
    string(TOUPPER "${component}" name)
    set(CPACK_DEBIAN_${name}_PACKAGE_NAME "${package}" PARENT_SCOPE)
    set(CPACK_DEBIAN_${name}_PACKAGE_SECTION "${section}" PARENT_SCOPE)
    set(CPACK_DEBIAN_${name}_PACKAGE_DEPENDS "${ARGN}" PARENT_SCOPE)
    set(CPACK_COMPONENT_${name}_DESCRIPTION "${_about}\n${description}" PARENT_SCOPE)
    install(FILES "${PROJECT_BINARY_DIR}/copyright" "${PROJECT_BINARY_DIR}/changelog.gz"
        DESTINATION "share/doc/${package}" COMPONENT ${component})
endfunction()

set(_tav_http_library libtavhttpclient${PROJECT_VERSION_MAJOR})
_tav_http_deb(library ${_tav_http_library} libs "This package holds the shared library.")
_tav_http_deb(dev libtavhttpclient-dev libdevel
    "This package holds what hosts are built with: headers for C and C++, and the\n\
static library."
    "${_tav_http_library} (= ${PROJECT_VERSION}), libuv1-dev, libssl-dev, zlib1g-dev, \
libhttp-parser-dev")
_tav_http_deb(tool tavfetch web "This package holds tavfetch, which fetches and sends URLs.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
    "${PROJECT_BINARY_DIR}/shlibs;${PROJECT_BINARY_DIR}/triggers")
set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}")
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${_tav_http_library} (>= ${PROJECT_VERSION})")

include(CPack)
