/* The smallest complete host in C on Windows: fetches one URL and writes the body as it came.
 *
 *     gcc host.c -Iinclude -Llib -ltavhttpclient
 *     cl host.c /Iinclude tavhttpclient.lib
 */
#include <fcntl.h>
#include <io.h>
#include <stdio.h>
#include <windows.h>

#include "tavhttpclient/tavhttpclient.h"

struct fetch {
    HANDLE done;
    uint32_t code;
};

/* Runs on a thread of the library: leave the result, wake the host, return. */
static void on_complete(http_session* session, void* user_data, uint32_t code) {
    struct fetch* item = (struct fetch*)user_data;
    (void)session;
    item->code = code;
    SetEvent(item->done);
}

int main(int argc, char** argv) {
    struct fetch item = {NULL, 0};
    http_session* session;
    const char* body = NULL;
    int32_t length = 0;

    item.done = CreateEventW(NULL, FALSE, FALSE, NULL);
    if (argc != 2 || item.done == NULL || tavHTTPStartup() != 0) {
        fprintf(stderr, "usage: host URL\n");
        return 2;
    }
    session = tavHTTPOpen(TAV_HTTP_METHOD_GET, argv[1], NULL, &item, on_complete);
    item.code = tavHTTPSendRequest(session);
    if (item.code == 0) {
        WaitForSingleObject(item.done, INFINITE);
    }
    if (item.code == 0 &&
        tavHTTPQueryInfo(session, TAV_HTTP_QUERY_MEMORY_BODY, &body, &length, NULL) == 0 &&
        body != NULL) {
        /* In text mode the line ends of the body would change. */
        _setmode(_fileno(stdout), _O_BINARY);
        fwrite(body, 1, (size_t)length, stdout);
    }
    fprintf(stderr, "code 0x%x\n", (unsigned)item.code);
    tavHTTPClose(session);
    tavHTTPShutdown();
    CloseHandle(item.done);
    return item.code == 0 ? 0 : 1;
}
