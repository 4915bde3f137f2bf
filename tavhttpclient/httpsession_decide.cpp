// What becomes of a session behind its response: redirect, retry, or completion.
//
// _on_recv_finish -> _notify_download_complete | _start_retry
//   | (_async_notify_redirect ->) _start_redirect
#include <http_parser.h>
#include <stdlib.h>

#include "tavhttpclient/fs.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/httpsession_steps.h"
#include "tavhttpclient/log.h"
#include "tavhttpclient/loop.h"
#include "tavhttpclient/request_record.h"
#include "tavhttpclient/util.h"

enum {
    MAX_RETRY_COUNT = 1,
    MAX_REDIRECT_COUNT = 10
};

// ------------------------------------------------------------------------------------------- retry

// Frees what belongs to the attempt that is over.
static void _discard_attempt(http_session* session) {
    free_http_response(session->response);
    session->response = nullptr;
    close_session_connection(session);
}

void _start_retry(http_session* session, uint32_t code) {
    session->retry_count++;
    if (session->retry_count > MAX_RETRY_COUNT) {
        LOG_INFO("_start_retry, too many retry, notify fail, retry count=%d/%d",
                 session->retry_count, MAX_RETRY_COUNT);
        _notify_download_complete(session, code);
        return;
    }
    LOG_INFO("_start_retry, session id=%d, error=%d, retry-count=%d", (int32_t)session->id,
             (int32_t)code, session->retry_count);
    _discard_attempt(session);
    _on_async_start_connect(session);
}

// --------------------------------------------------------------------------------------- redirect

// New text: the location, with the current URL's fragment when it has none of its own; null when
// either is no URL.
static char* _make_redirect_url(const char* current, const char* location) {
    url_info current_info;
    url_info location_info;
    if (!parse_url_info(current, &current_info) || !parse_url_info(location, &location_info)) {
        return nullptr;
    }
    if (location_info.fragment.length != 0 || current_info.fragment.length == 0) {
        return string_dup(location);
    }
    return string_format("%s#%.*s", location, (int)current_info.fragment.length,
                         current_info.fragment.data);
}

// Loop thread. From _on_recv_finish or _after_work_notify_redirect; next _on_async_start_connect.
static void _start_redirect(http_session* session) {
    http_request* request = session->request;
    const char* location = session->response->location;
    char* url = _make_redirect_url(request->url, location);
    if (url == nullptr) {
        LOG_INFO("_start_redirect, invalid redirect url, url=%s, location=%s",
                 session_log_url(session, request->url), session_log_url(session, location));
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_FAIL_PARSE_RESPONSE);
        return;
    }
    LOG_INFO("_start_redirect, url=%s, referer=%s", session_log_url(session, url),
             session_log_url(session, request->url));
    free(request->referer);
    request->referer = request->url;
    request->url = url;
    request->redirect_count++;
    _discard_attempt(session);
    _on_async_start_connect(session);
}

// Worker thread. From _async_notify_redirect; next _after_work_notify_redirect.
static void _work_notify_redirect(worker_step* work) {
    http_session* session = (http_session*)work->data;
    if (session == nullptr) {
        LOG_ERROR("_work_notify_redirect, session is null.");
        return;
    }
    if (session->redirect_cb == nullptr || !session_may_call_host(session)) {
        return;
    }
    char* url = _make_redirect_url(session->request->url, session->response->location);
    // Null without memory, or for a location that is no URL; the next step ends the session then.
    if (url != nullptr) {
        session->redirect_cb(session, session->user_data, url, session->request->url);
    }
    free(url);
}

// Loop thread. From _work_notify_redirect; next _start_redirect.
static void _after_work_notify_redirect(worker_step* work, int status) {
    http_session* session = (http_session*)work->data;
    if (!LOG_ASSERT(status >= 0)) {
        LOG_ERROR("_after_work_notify_download_complete, failed, status=%d", status);
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK);
        return;
    }
    _start_redirect(session);
}

// Loop thread. From _on_recv_finish; lets a host that wants to see a redirect before it is
// followed.
static void _async_notify_redirect(http_session* session) {
    if (!LOG_ASSERT_IN("_notify_redirect", session != nullptr)) {
        LOG_ERROR("_async_notify_redirect, session is NULL.");
        return;
    }
    if (!LOG_ASSERT_IN("_notify_redirect", get_uv_loop() != nullptr)) {
        LOG_ERROR("_async_notify_redirect, loop is NULL, id=%d.", (int32_t)session->id);
        return;
    }
    session->work_req.data = session;
    if (session->redirect_cb == nullptr) {
        _start_redirect(session);
        return;
    }
    int result =
        queue_worker_step(&session->work_req, _work_notify_redirect, _after_work_notify_redirect);
    if (!LOG_ASSERT(result == 0)) {
        LOG_ERROR("_async_notify_redirect, uv_queue_work failed, id=%d", (int32_t)session->id);
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_FAIL_QUEUE_WORK);
    }
}

static void _follow_redirect(http_session* session) {
    if (session->options->no_redirect != 0) {
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_OK);
        return;
    }
    if (session->request->redirect_count > MAX_REDIRECT_COUNT) {
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_TOO_MANY_REDIRECT);
        return;
    }
    const char* location = session->response->location;
    if (is_empty_text(location)) {
        LOG_INFO("_on_recv_finish, redirect without location set, notify error, id=%d",
                 (int32_t)session->id);
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR);
        return;
    }
    _async_notify_redirect(session);
}

// --------------------------------------------------------------------------------------- judgement

static void _finish_ok(http_session* session) {
    const http_response* response = session->response;
    if (session->request->method != TAV_HTTP_METHOD_HEAD && response->content_length != 0 &&
        response->content_length != response->recv_body_bytes) {
        LOG_ERROR("_on_recv_finish, invalid content length, url=%s, length=%u, recv_size=%u",
                  session_log_url(session, session->request->url),
                  (uint32_t)response->content_length, (uint32_t)response->recv_body_bytes);
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_INVALID_CONTENT_LENGTH);
        return;
    }
    _notify_download_complete(session, TAV_HTTP_ERROR_CODE_OK);
}

// The file has nothing that the server could continue: once more, from the start.
static void _finish_range_not_satisfiable(http_session* session) {
    LOG_INFO("_on_recv_finish, status_code == HTTP_STATUS_REQUEST_RANGE_NOT_SATISFIABLE, try again "
             "without range, id=%d",
             (int32_t)session->id);
    const http_options* options = session->options;
    if (options->resume != 0 && !is_empty_text(options->download_file) &&
        !tavhttp_is_special_file(options->download_file)) {
        int32_t err = tavhttp_remove(options->download_file);
        if (err != 0) {
            // An errno number with libuv's text for it: the pair has always been logged like this.
            char text[64];
            LOG_INFO("_on_recv_finish, HTTP_STATUS_REQUEST_RANGE_NOT_SATISFIABLE, uv_fs_unlink "
                     "fail, ret=%d, %s",
                     err, uv_strerror_r(err, text, sizeof(text)));
        }
    }
    _start_retry(session, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR);
}

// Loop thread. From _on_http_recv_response_result, when the response has been received whole.
void _on_recv_finish(http_session* session) {
    uint32_t id = session->id;
    if (_check_session_cancel_and_notify(session)) {
        LOG_INFO("_on_recv_finish, cancel, id=%d", (int32_t)id);
        return;
    }
    uint32_t status_code = session->response->status_code;
    if (is_redirect_status(status_code)) {
        _follow_redirect(session);
        return;
    }
    switch (status_code) {
    case HTTP_STATUS_OK:
        _finish_ok(session);
        break;
    case HTTP_STATUS_PARTIAL_CONTENT:
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_OK);
        break;
    case HTTP_STATUS_NOT_MODIFIED:
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_NOT_MODIFIED);
        break;
    case HTTP_STATUS_RANGE_NOT_SATISFIABLE:
        _finish_range_not_satisfiable(session);
        break;
    default:
        LOG_INFO("_on_recv_finish, default error handler, id=%u, status_code=%d", id,
                 (int32_t)status_code);
        _notify_download_complete(session, TAV_HTTP_ERROR_CODE_SVR_RETURN_ERROR);
        break;
    }
}
