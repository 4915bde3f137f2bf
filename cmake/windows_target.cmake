# What the targets need on Windows; everything is linked in, but for the system's own DLLs.
enable_language(RC)

# Windows 7 and later. The runtime's own printf knows no %zu.
add_compile_definitions(
    _WIN32_WINNT=0x0601 WIN32_LEAN_AND_MEAN NOMINMAX __USE_MINGW_ANSI_STDIO=1)
add_compile_options(-fstack-protector-strong)
add_link_options(-static -fstack-protector-strong LINKER:--nxcompat LINKER:--dynamicbase
    $<$<EQUAL:${CMAKE_SIZEOF_VOID_P},8>:LINKER:--high-entropy-va>)

# A program finds the library's DLL beside it.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")

# tavhttpclient.dll with the exports of the .def file, an import library, and what Explorer shows.
function(tav_http_windows_dll target)
    configure_file(cmake/version.rc.in version.rc @ONLY)
    target_sources(${target} PRIVATE "${PROJECT_SOURCE_DIR}/platform/windows_dll.cpp"
        "${PROJECT_SOURCE_DIR}/cmake/tavhttpclient.def" "${PROJECT_BINARY_DIR}/version.rc")
    set_target_properties(${target} PROPERTIES
        PREFIX ""
        IMPORT_PREFIX "lib")
endfunction()
