// Where body bytes go, step by step: the write work of a response without a transfer around it.
#include "tavhttpclient/httpresponse.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tavhttpclient/fs.h"
#include "tavhttpclient/httpsession.h"

namespace {

struct host_call {
    std::uint64_t offset;
    std::string bytes;
};

std::vector<host_call> data_calls;
int start_calls;

void on_data(http_session*, void*, std::uint64_t offset, const void* data, std::uint32_t length) {
    data_calls.push_back({offset, std::string(static_cast<const char*>(data), length)});
}

void on_start(http_session*, void*, const char*, std::uint64_t, std::uint64_t, std::uint64_t) {
    start_calls++;
}

std::string file_text(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

class writing : public testing::Test {
  protected:
    void SetUp() override {
        data_calls.clear();
        start_calls = 0;
        char name[] = "/tmp/tav_response_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(name));
        directory_ = name;
        session_.options = &options_;
        session_.request = &request_;
        session_.connection = &connection_;
        response_ = static_cast<http_response*>(std::calloc(1, sizeof(http_response)));
        response_->session = &session_;
        response_->status_code = 200;
        response_->recv_state = RECV_HEADERS_DONE;
        session_.response = response_;
        request_.method = TAV_HTTP_METHOD_GET;
        request_.url = url_;
    }
    void TearDown() override {
        if (response_->temp_path != nullptr) {
            std::remove(response_->temp_path);
        }
        free_http_response(response_);
        std::free(options_.download_file);
        std::remove((directory_ + "/file.bin").c_str());
        EXPECT_EQ(0, rmdir(directory_.c_str()));
    }

    // As the parser would: bytes come in, then the write work runs.
    std::uint32_t write(const std::string& bytes) {
        text_buffer_append(&response_->body_chunk, bytes.data(),
                           static_cast<std::uint32_t>(bytes.size()));
        response_->body_bytes += bytes.size();
        response_->recv_body_bytes += bytes.size();
        return write_response_body(&session_);
    }
    void download_to(const std::string& path) {
        string_replace(&options_.download_file, path.c_str());
    }
    std::string memory() const {
        const text_buffer& body = response_->memory_body;
        return std::string(body.data != nullptr ? body.data : "",
                           static_cast<std::size_t>(body.length));
    }

    std::string directory_;
    char url_[32] = "http://host.test/";
    http_options options_ = {};
    http_request request_ = {};
    http_connection connection_ = {};
    http_session session_ = {};
    http_response* response_ = nullptr;
};

TEST_F(writing, MemoryBodyGrowsAndTheHostIsToldOnce) {
    session_.download_start_cb = on_start;
    EXPECT_EQ(0u, write(""));
    EXPECT_EQ(0, start_calls);
    EXPECT_EQ(0u, write("one "));
    EXPECT_EQ(0u, write("two"));
    EXPECT_EQ("one two", memory());
    EXPECT_EQ(1, start_calls);
}

TEST_F(writing, TheHostGetsTheBytesInsteadOfMemory) {
    session_.download_data_cb = on_data;
    request_.range_start = 1000;
    EXPECT_EQ(0u, write("abc"));
    EXPECT_EQ(0u, write("de"));
    ASSERT_EQ(2u, data_calls.size());
    EXPECT_EQ(1000u, data_calls[0].offset);
    EXPECT_EQ("abc", data_calls[0].bytes);
    EXPECT_EQ(1003u, data_calls[1].offset);
    EXPECT_EQ("de", data_calls[1].bytes);
    EXPECT_EQ("", memory());
}

TEST_F(writing, AnErrorBodyGoesToMemoryUnlessItIsAskedFor) {
    session_.download_data_cb = on_data;
    session_.download_start_cb = on_start;
    response_->status_code = 404;
    download_to(directory_ + "/file.bin");
    EXPECT_EQ(0u, write("error "));
    EXPECT_EQ("error ", memory());
    EXPECT_TRUE(data_calls.empty());
    EXPECT_EQ(0, start_calls);
    EXPECT_EQ(nullptr, response_->file_path);
}

TEST_F(writing, AClosedSessionIsNotCalled) {
    session_.download_data_cb = on_data;
    session_.download_start_cb = on_start;
    session_.closed = 1;
    EXPECT_EQ(0u, write("abc"));
    EXPECT_TRUE(data_calls.empty());
    EXPECT_EQ(0, start_calls);
}

TEST_F(writing, AnnouncedLengthsAreNotTrusted) {
    struct {
        std::uint64_t announced;
        std::uint32_t result;
    } cases[] = {
        {0, 0},
        {1, 0},
        {0x100000000ull, 0},         // the low half is 0
        {0xFFFFFFFFull - 1023, 0},   // the sum is 0
        {0xFFFFFFFFFFFFFFFFull, 0},  // the sum is 1023
        {0x7FFFFFFFull, TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY},
        {0x80000000ull, TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY},
        {0xF0000000ull, TAV_HTTP_ERROR_CODE_OUT_OF_MEMORY},
    };
    for (const auto& now : cases) {
        SCOPED_TRACE(now.announced);
        text_buffer_release(&response_->memory_body);
        text_buffer_release(&response_->body_chunk);
        response_->body_bytes = 0;
        response_->delivered_bytes = 0;
        response_->content_length = now.announced;
        EXPECT_EQ(now.result, write("some bytes"));
        EXPECT_EQ(now.result == 0 ? "some bytes" : "", memory());
    }
}

TEST_F(writing, FileIsWrittenInBatchesBesideItsTarget) {
    std::string target = directory_ + "/file.bin";
    download_to(target);
    std::string block(20000, 'a');
    EXPECT_EQ(0u, write(block));
    ASSERT_NE(nullptr, response_->temp_path);
    EXPECT_NE(target, response_->temp_path);
    EXPECT_EQ(0u, response_->file_written);
    EXPECT_EQ(0u, write(block));
    EXPECT_EQ(40000u, response_->file_written);
    response_->recv_state = RECV_COMPLETE;
    EXPECT_EQ(0u, write("end"));
    EXPECT_EQ(nullptr, response_->recv_file_id);
    EXPECT_EQ(block + block + "end", file_text(response_->temp_path));
    EXPECT_NE(0, access(target.c_str(), F_OK));
}

TEST_F(writing, AClosedConnectionFlushesTheFile) {
    download_to(directory_ + "/file.bin");
    EXPECT_EQ(0u, write("waiting"));
    EXPECT_EQ(0u, response_->file_written);
    session_.connection = nullptr;
    EXPECT_EQ(0u, write(""));
    EXPECT_EQ(nullptr, response_->recv_file_id);
    EXPECT_EQ("waiting", file_text(response_->temp_path));
}

TEST_F(writing, ResumedFileGoesOnInPlace) {
    std::string target = directory_ + "/file.bin";
    std::ofstream(target) << "0123456789";
    download_to(target);
    options_.resume = 1;
    request_.range_start = 4;
    request_.range_end = -1;
    response_->recv_state = RECV_COMPLETE;
    EXPECT_EQ(0u, write("XY"));
    EXPECT_STREQ(target.c_str(), response_->temp_path);
    EXPECT_EQ("0123XY6789", file_text(target));
}

TEST_F(writing, NoFileIsMadeBeforeTheHeadIsComplete) {
    download_to(directory_ + "/file.bin");
    response_->recv_state = RECV_BEGUN;
    EXPECT_EQ(0u, write(""));
    EXPECT_EQ(nullptr, response_->file_path);
}

TEST_F(writing, FileFailuresAreReported) {
    download_to(directory_ + "/missing/file.bin");
    EXPECT_EQ(TAV_HTTP_ERROR_CODE_FAIL_OPEN_RESPONSE_FILE, static_cast<int>(write("x")));
    EXPECT_EQ(nullptr, response_->recv_file_id);
}

TEST_F(writing, AFullDiskIsNoticedAtTheLatestWhenTheFileIsClosed) {
    download_to("/dev/full");
    request_.range_start = 1;  // in place
    response_->recv_state = RECV_COMPLETE;
    EXPECT_NE(0u, write("lost"));
    tavhttp_fclose(response_->recv_file_id);
    response_->recv_file_id = nullptr;
    std::free(response_->temp_path);  // not ours to remove
    response_->temp_path = nullptr;
}

TEST_F(writing, CountsThatDisagreeEndTheResponse) {
    EXPECT_EQ(0u, write("abc"));
    response_->delivered_bytes = 100;
    EXPECT_EQ(static_cast<std::uint32_t>(TAV_HTTP_ERROR_CODE_FAIL_OTHER), write("def"));
    response_->delivered_bytes = 0;
    response_->body_bytes = 1000;
    EXPECT_EQ(static_cast<std::uint32_t>(TAV_HTTP_ERROR_CODE_FAIL_OTHER), write("g"));
}

TEST_F(writing, DigestCoversEveryPiece) {
    options_.body_md5 = 1;
    EXPECT_EQ(0u, write("message "));
    EXPECT_EQ(0u, write("digest"));
    finish_body_md5(response_);
    const std::uint8_t expected[] = {0xf9, 0x6b, 0x69, 0x7d, 0x7c, 0xb7, 0x93, 0x8d,
                                     0x52, 0x5a, 0x2f, 0x31, 0xaa, 0xf1, 0x61, 0xd0};
    EXPECT_EQ(0, std::memcmp(expected, response_->md5_digest, sizeof(expected)));
}

}  // namespace
