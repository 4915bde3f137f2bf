/* The smallest complete host in C: fetches one URL into memory and prints it. */
#include <semaphore.h>
#include <stdio.h>

#include "tavhttpclient/tavhttpclient_typed.h"

struct fetch {
    sem_t done;
    uint32_t code;
};

/* Runs on a thread of the library: leave the result, wake the host, return. */
static void on_complete(http_session* session, void* user_data, uint32_t code) {
    struct fetch* item = (struct fetch*)user_data;
    (void)session;
    item->code = code;
    sem_post(&item->done);
}

int main(int argc, char** argv) {
    struct fetch item;
    http_session* session;
    const char* body = NULL;
    int32_t length = 0;
    uint32_t code;

    if (argc != 2 || sem_init(&item.done, 0, 0) != 0 || tavHTTPStartup() != 0) {
        fprintf(stderr, "usage: minimal_c URL\n");
        return 2;
    }
    session = tavHTTPOpen(TAV_HTTP_METHOD_GET, argv[1], NULL, &item, on_complete);
    tav_http_set_session_timeout(session, 20000);
    code = tavHTTPSendRequest(session);
    if (code == 0) {
        while (sem_wait(&item.done) != 0) {
        }
        code = item.code;
    }
    if (code == 0 && tav_http_get_memory_body(session, &body, &length) == 0 && body != NULL) {
        fwrite(body, 1, (size_t)length, stdout);
    }
    fprintf(stderr, "%s\n", tav_http_error_text(code));
    tavHTTPClose(session);
    tavHTTPShutdown();
    return code == 0 ? 0 : 1;
}
