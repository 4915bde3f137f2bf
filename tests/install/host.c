/* A host in C: asks a port at which nobody listens and expects to be told so. */
#include <stdio.h>
#include <unistd.h>

#include <tavhttpclient/tavhttpclient.h>

static void on_complete(http_session* session, void* user_data, uint32_t code) {
    (void)session;
    if (write(*(int*)user_data, &code, sizeof(code)) != sizeof(code)) {
        perror("write");
    }
}

int main(int argc, char** argv) {
    int ends[2];
    uint32_t code = 0;
    http_session* session;

    if (argc != 2 || pipe(ends) != 0 || tavHTTPStartup() != TAV_HTTP_ERROR_CODE_OK) {
        return 2;
    }
    session = tavHTTPOpen(TAV_HTTP_METHOD_GET, argv[1], NULL, &ends[1], on_complete);
    tavHTTPSetOption(session, TAV_HTTP_OPTION_SESSION_TIMEOUT, (int32_t)20000);
    if (tavHTTPSendRequest(session) != TAV_HTTP_ERROR_CODE_OK ||
        read(ends[0], &code, sizeof(code)) != sizeof(code)) {
        return 2;
    }
    tavHTTPClose(session);
    tavHTTPShutdown();
    printf("0x%x\n", (unsigned)code);
    return code == TAV_HTTP_ERROR_CODE_FAIL_CONNECT ? 0 : 1;
}
