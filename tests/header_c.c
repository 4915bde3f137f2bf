/* A host in C: the public header must compile as C99 with every declaration in use. */
#include "tavhttpclient/tavhttpclient.h"

static void _on_complete(http_session* session, void* user_data, uint32_t code) {
    (void)session;
    *(uint32_t*)user_data = code;
}

static void _on_data(http_session* session, void* user_data, uint64_t offset, const void* data,
                     uint32_t length) {
    (void)session;
    (void)user_data;
    (void)offset;
    (void)data;
    (void)length;
}

static void _on_log(int32_t level, const char* tag, const char* text) {
    (void)level;
    (void)tag;
    (void)text;
}

uint32_t c_host_request(const char* url, char* buffer, int32_t length);

uint32_t c_host_request(const char* url, char* buffer, int32_t length) {
    uint32_t code = TAV_HTTP_ERROR_CODE_OK;
    proxy_info proxy = {TAV_HTTP_PROXY_NONE, 0, 0, 0, 0, 0};
    complete_callback on_complete = _on_complete;
    download_data_callback on_data = _on_data;
    http_session* session;

    if (tavHTTPStartup() != TAV_HTTP_ERROR_CODE_OK) {
        return TAV_HTTP_ERROR_CODE_FAIL_RUN_EVENT_LOOP;
    }
    (void)tavHTTPSetLogCallback(_on_log);
    (void)tavHTTPSetConfig(TAV_HTTP_CONFIG_MAX_RUNNING_COUNT, 3);
    (void)tavHTTPSetDefaultProxy(&proxy);
    (void)tavHTTPSetUseThirdLSP(0);
    (void)tavHTTPSetDownloadDirectory("downloads");
    (void)tavHTTPGetDownloadDirectory(buffer, &length);

    session = tavHTTPOpen(TAV_HTTP_METHOD_GET, url, &proxy, &code, on_complete);
    (void)tavHTTPSetOption(session, TAV_HTTP_OPTION_RANGE, (int64_t)0, (int64_t)-1);
    (void)tavHTTPSetOption(session, TAV_HTTP_OPTION_DOWNLOAD_DATA_CALLBACK, on_data);
    (void)tavHTTPSendRequest(session);
    (void)tavHTTPCancelRequest(session);
    (void)tavHTTPQueryInfo(session, TAV_HTTP_QUERY_URL, buffer, 0, &length);
    (void)tavHTTPClose(session);
    (void)tavHTTPShutdown();
    return code;
}
