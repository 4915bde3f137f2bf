// What no server can bring about in the write work of a response: lengths at the limits of the
// numbers, and counts that disagree.
#include "tavhttpclient/httpresponse_body.h"

#include <gtest/gtest.h>

#include "tavhttpclient/httpconnect.h"
#include "tavhttpclient/httpoption.h"
#include "tavhttpclient/httpresponse.h"
#include "tavhttpclient/request_record.h"
#include "tavhttpclient/session_record.h"

namespace {

class writing : public testing::Test {
  protected:
    writing() {
        session_.options = &options_;
        session_.request = &request_;
        session_.connection = &connection_;
        response_ = new_http_response(&session_);
        response_->status_code = 200;
        response_->recv_state = RECV_HEADERS_DONE;
        session_.response = response_;
        request_.method = TAV_HTTP_METHOD_GET;
        request_.url = url_;
    }
    ~writing() override {
        free_http_response(response_);
    }

    // As the parser would: bytes come in, then the write work runs.
    std::uint32_t write(const std::string& bytes) {
        text_buffer_append(&response_->body_chunk, bytes.data(),
                           static_cast<std::uint32_t>(bytes.size()));
        response_->body_bytes += bytes.size();
        response_->recv_body_bytes += bytes.size();
        return write_response_body(&session_);
    }

    char url_[32] = "http://host.test/";
    http_options options_ = {};
    http_request request_ = {};
    http_connection connection_ = {};
    http_session session_ = {};
    http_response* response_ = nullptr;
};

int host_calls = 0;

void on_data(http_session*, void*, std::uint64_t, const void*, std::uint32_t) {
    host_calls++;
}

TEST_F(writing, AnErrorBodyGoesToMemoryUnlessItIsAskedFor) {
    session_.download_data_cb = on_data;
    response_->status_code = 404;
    string_replace(&options_.download_file, "/nowhere/file.bin");
    EXPECT_EQ(0u, write("error "));
    EXPECT_EQ("error ", std::string(response_->memory_body.data,
                                    static_cast<std::size_t>(response_->memory_body.length)));
    EXPECT_EQ(0, host_calls);
    EXPECT_EQ(nullptr, response_->file_path);
    string_replace(&options_.download_file, nullptr);
}

TEST_F(writing, AnnouncedLengthsAreNotTrusted) {
    const struct {
        std::uint64_t announced;
        std::uint32_t result;
    } rows[] = {
        {0, 0},
        {1, 0},
        {0x100000000ull, 0},         // the low half is 0
        {0xFFFFFFFFull - 1023, 0},   // the sum is 0
        {0xFFFFFFFFFFFFFFFFull, 0},  // the sum is 1023
        {0x7FFFFFFFull, TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY},
        {0xF0000000ull, TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.announced);
        text_buffer_release(&response_->memory_body);
        text_buffer_release(&response_->body_chunk);
        response_->body_bytes = 0;
        response_->delivered_bytes = 0;
        response_->content_length = row.announced;
        EXPECT_EQ(row.result, write("some bytes"));
        EXPECT_EQ(row.result == 0 ? 10 : 0, response_->memory_body.length);
    }
}

TEST_F(writing, CountsThatDisagreeEndTheResponse) {
    EXPECT_EQ(0u, write("abc"));
    response_->delivered_bytes = 100;
    EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_OTHER}, write("def"));
    response_->delivered_bytes = 0;
    response_->body_bytes = 1000;
    EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_OTHER}, write("g"));
}

}  // namespace
