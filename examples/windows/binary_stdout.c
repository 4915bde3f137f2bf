/* Linked into the examples on Windows: bodies on standard output keep their line ends. */
#include <fcntl.h>
#include <io.h>
#include <stdio.h>

__attribute__((constructor)) static void make_stdout_binary(void) {
    _setmode(_fileno(stdout), _O_BINARY);
}
