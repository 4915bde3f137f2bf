# Finds the http-parser library, which brings neither a CMake package nor a .pc file.
#
# Sets HttpParser_FOUND and HttpParser_VERSION; defines HttpParser::HttpParser.
find_path(HttpParser_INCLUDE_DIR http_parser.h)
find_library(HttpParser_LIBRARY http_parser)
mark_as_advanced(HttpParser_INCLUDE_DIR HttpParser_LIBRARY)

if(HttpParser_INCLUDE_DIR)
    file(STRINGS "${HttpParser_INCLUDE_DIR}/http_parser.h" _http_parser_lines
        REGEX "^#define HTTP_PARSER_VERSION_(MAJOR|MINOR|PATCH) +[0-9]+")
    string(REGEX MATCHALL "[0-9]+" _http_parser_numbers "${_http_parser_lines}")
    list(JOIN _http_parser_numbers "." HttpParser_VERSION)
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(HttpParser
    REQUIRED_VARS HttpParser_LIBRARY HttpParser_INCLUDE_DIR
    VERSION_VAR HttpParser_VERSION)

if(HttpParser_FOUND AND NOT TARGET HttpParser::HttpParser)
    add_library(HttpParser::HttpParser UNKNOWN IMPORTED)
    set_target_properties(HttpParser::HttpParser PROPERTIES
        IMPORTED_LOCATION "${HttpParser_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${HttpParser_INCLUDE_DIR}")
endif()
