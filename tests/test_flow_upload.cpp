// Uploads: what the server receives byte for byte, what the host hears of the progress, and what
// happens when files or connections are not what they were.
#include "tests/support/host.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::size_t chunk = 16384;

request_handler answer_ok() {
    return [](const received_request&) { return response(200, "ok"); };
}

std::size_t head_size(const received_request& request) {
    return request.raw.size() - request.body.size();
}

// The progress events that pieces of these sizes behind the head give.
std::vector<std::string> progress_of(std::size_t head, const std::vector<std::size_t>& pieces) {
    std::size_t total = head;
    for (std::size_t piece : pieces) {
        total += piece;
    }
    std::vector<std::string> lines = {"0 " + std::to_string(head) + " " + std::to_string(total)};
    std::size_t sent = head;
    for (std::size_t piece : pieces) {
        lines.push_back(std::to_string(sent) + " " + std::to_string(piece) + " " +
                        std::to_string(total));
        sent += piece;
    }
    return lines;
}

std::vector<std::string> progress_seen(const transfer& one) {
    std::vector<std::string> lines;
    for (const event& seen : one.events()) {
        if (seen.name == "progress") {
            lines.push_back(seen.detail);
        }
    }
    return lines;
}

// The sizes in which content of this size goes out.
std::vector<std::size_t> chunks_of(std::size_t size) {
    std::vector<std::size_t> sizes(size / chunk, chunk);
    if (size % chunk != 0) {
        sizes.push_back(size % chunk);
    }
    return sizes;
}

TEST(Upload, RawBodiesArriveInPieces) {
    library lib;
    work_dir dir;
    for (std::size_t size :
         {std::size_t{1}, chunk - 1, chunk, chunk + 1, std::size_t{40000}, std::size_t{1000003}}) {
        for (bool from_file : {false, true}) {
            SCOPED_TRACE(testing::Message() << size << (from_file ? " file" : " memory"));
            scripted_server server(answer_ok());
            std::string bytes = sample_bytes(size);
            transfer post(server.url("/up"), TAV_HTTP_METHOD_POST);
            post.record();
            if (from_file) {
                write_file("upload.bin", bytes);
                post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin");
            } else {
                post.set(TAV_HTTP_OPTION_APPEND_BODY, bytes.data(), 1u);
                post.set(TAV_HTTP_OPTION_APPEND_BODY, bytes.data() + 1,
                         static_cast<unsigned>(size - 1));
            }
            ASSERT_EQ(0u, post.run());
            received_request request = server.request(0);
            EXPECT_EQ("POST", request.method);
            EXPECT_EQ("application/octet-stream", request.header("Content-Type"));
            EXPECT_EQ(std::to_string(size), request.header("Content-Length"));
            EXPECT_TRUE(request.body == bytes);
            EXPECT_EQ(progress_of(head_size(request), chunks_of(size)), progress_seen(post));
        }
    }
}

TEST(Upload, NothingToSend) {
    library lib;
    work_dir dir;
    write_file("empty.bin", "");
    for (bool from_file : {false, true}) {
        scripted_server server(answer_ok());
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.record();
        if (from_file) {
            post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "empty.bin");
        }
        ASSERT_EQ(0u, post.run());
        received_request request = server.request(0);
        EXPECT_EQ("POST", request.method);
        EXPECT_EQ("0", request.header("Content-Length"));
        EXPECT_EQ("", request.body);
        EXPECT_EQ(progress_of(head_size(request), {}), progress_seen(post));
    }
}

TEST(Upload, UrlEncodedForm) {
    library lib;
    scripted_server server(answer_ok());
    transfer post(server.url(), TAV_HTTP_METHOD_POST);
    post.record();
    std::string big(30000, 'v');
    post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "a b", "%s&%d", "x=y", 7);
    post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "big", "%s", big.c_str());
    ASSERT_EQ(0u, post.run());
    received_request request = server.request(0);
    EXPECT_EQ("application/x-www-form-urlencoded; charset=UTF-8", request.header("Content-Type"));
    EXPECT_EQ("a%20b=x%3Dy%267&big=" + big, request.body);
    EXPECT_EQ(progress_of(head_size(request), chunks_of(request.body.size())), progress_seen(post));
}

TEST(Upload, MultipartForm) {
    library lib;
    work_dir dir;
    std::string file = sample_bytes(20000);
    write_file("photo.jpg", file);
    write_file("empty.bin", "");
    const char bytes[] = {'\0', '\r', '\n', '-', '-'};
    scripted_server server(answer_ok());
    transfer post(server.url(), TAV_HTTP_METHOD_POST);
    post.record();
    post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "field", "%s", "value");
    post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "none", static_cast<const char*>(nullptr));
    post.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "file", "./photo.jpg",
             static_cast<const char*>(nullptr));
    post.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "gone", "", "unnamed");
    post.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "empty", "empty.bin", "e");
    post.set(TAV_HTTP_OPTION_ADD_FORM_DATA, "data", bytes, 5, "d.bin");
    ASSERT_EQ(0u, post.run());

    received_request request = server.request(0);
    const std::string type = request.header("Content-Type");
    const std::string lead = "multipart/form-data; boundary=";
    ASSERT_EQ(0u, type.find(lead));
    const std::string line = "--" + type.substr(lead.size());
    const std::string form = line + "\r\nContent-Disposition: form-data; name=";
    const std::string binary = "\r\nContent-Type: application/octet-stream\r\n"
                               "Content-Transfer-Encoding: binary\r\n\r\n";
    // Head, content and end of each part.
    const std::string parts[][3] = {
        {form + "\"field\"\r\n\r\n", "value", "\r\n"},
        {form + "\"none\"\r\n\r\n", "", "\r\n"},
        {form + "\"file\"; filename=\"photo.jpg\"" + binary, file, "\r\n"},
        {form + "\"gone\"; filename=\"unnamed\"" + binary, "", "\r\n"},
        {form + "\"empty\"; filename=\"e\"" + binary, "", "\r\n"},
        {form + "\"data\"; filename=\"d.bin\"" + binary, std::string(bytes, 5),
         "\r\n" + line + "--\r\n"},
    };
    std::string expected;
    std::vector<std::size_t> pieces;
    for (const auto& part : parts) {
        for (const std::string& text : part) {
            expected += text;
            std::vector<std::size_t> sizes = chunks_of(text.size());
            pieces.insert(pieces.end(), sizes.begin(), sizes.end());
        }
    }
    EXPECT_TRUE(request.body == expected) << request.body;
    EXPECT_EQ(progress_of(head_size(request), pieces), progress_seen(post));
}

TEST(Upload, MissingFileSendsNothing) {
    library lib;
    work_dir dir;
    for (bool in_form : {false, true}) {
        scripted_server server(answer_ok());
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.record();
        if (in_form) {
            post.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "f", "missing", "name");
        } else {
            post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "missing");
        }
        EXPECT_EQ(0x100004u, post.run());
        EXPECT_EQ("connecting connected complete", post.event_names());
        post.close();  // Only now does its connection end.
        ASSERT_TRUE(server.wait_for_disconnects(1));
        EXPECT_EQ(0u, server.request_count());
    }
}

// Changes the file while its head is on its way: at the first progress call it is open and sized.
void change_at_head(transfer& post, std::function<void()> change) {
    auto done = std::make_shared<bool>(false);
    post.at("progress", [done, change](transfer&) {
        if (!*done) {
            *done = true;
            change();
        }
    });
}

TEST(Upload, ShrunkFileFails) {
    library lib;
    work_dir dir;
    for (long left : {0L, 100L, static_cast<long>(chunk), 20000L}) {
        SCOPED_TRACE(left);
        write_file("upload.bin", sample_bytes(40000));
        scripted_server server(script{expect_request(), stall()});
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin");
        change_at_head(post, [left] { EXPECT_EQ(0, truncate("upload.bin", left)); });
        EXPECT_EQ(0x100006u, post.run());
    }
}

TEST(Upload, GrownFileSendsWhatWasAnnounced) {
    library lib;
    work_dir dir;
    for (std::size_t size : {std::size_t{100}, chunk, std::size_t{20000}}) {
        SCOPED_TRACE(size);
        std::string bytes = sample_bytes(size);
        write_file("upload.bin", bytes);
        scripted_server server(answer_ok());
        for (int round = 0; round < 2; round++) {
            transfer post(server.url(), TAV_HTTP_METHOD_POST);
            post.record();
            post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin");
            post.set(TAV_HTTP_OPTION_KEEP_ALIVE, 1u, 30000, 0);
            if (round == 0) {
                change_at_head(post, [bytes] {
                    write_file("upload.bin", bytes + std::string(3 * chunk, 'x'));
                });
            }
            ASSERT_EQ(0u, post.run());
        }
        // Bytes beyond the announced ones would have spoilt the second request.
        ASSERT_EQ(2u, server.request_count());
        EXPECT_TRUE(server.request(0).body == bytes);
        EXPECT_EQ(size + 3 * chunk, server.request(1).body.size());
    }
}

// The size of a file beyond 32 bits must survive into the head and the progress figures.
TEST(Upload, FileBeyondFourGigabytes) {
    library lib;
    work_dir dir;
    const off_t size = (static_cast<off_t>(5) << 30) + 7;
    int file = open("sparse.bin", O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    ASSERT_EQ(0, ftruncate(file, size));
    ::close(file);

    for (bool in_form : {false, true}) {
        scripted_server server(script{read_bytes(600), stall()});
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.record();
        if (in_form) {
            post.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "f", "sparse.bin", "s");
        } else {
            post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "sparse.bin");
        }
        ASSERT_EQ(0u, post.send());
        ASSERT_TRUE(server.wait_for_requests(1));
        EXPECT_TRUE(wait_until([&] { return post.event_count("progress") >= 3; }));
        post.cancel();
        EXPECT_EQ(2u, post.wait());

        std::string raw = server.request(0).raw;
        const std::string label = "Content-Length: ";
        std::size_t place = raw.find(label);
        ASSERT_NE(std::string::npos, place);
        long long announced = std::atoll(raw.c_str() + place + label.size());
        if (in_form) {
            EXPECT_GT(announced, size);
            EXPECT_LT(announced, size + 400);
        } else {
            EXPECT_EQ(announced, size);
        }
        std::size_t head = raw.find("\r\n\r\n") + 4;
        EXPECT_EQ("0 " + std::to_string(head) + " " +
                      std::to_string(static_cast<long long>(head) + announced),
                  post.detail("progress"));
    }
}

TEST(Upload, CancelledBetweenTwoPieces) {
    library lib;
    work_dir dir;
    write_file("upload.bin", sample_bytes(10 * chunk));
    for (std::size_t piece : {1u, 2u, 5u}) {
        scripted_server server(script{expect_request(), stall()});
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        auto count = std::make_shared<std::size_t>(0);
        post.at("progress", [count, piece](transfer& one) {
            if (++*count == piece) {
                one.cancel();
            }
        });
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin");
        EXPECT_EQ(2u, post.run());
        EXPECT_EQ(piece, post.event_count("progress")) << "a piece went out after the cancel";
    }
}

// A server that stops reading: the send ends by its time-out, and no file stays open.
TEST(Upload, StuckServerEndsByTimeout) {
    descriptor_guard descriptors;
    {
        library lib;
        work_dir dir;
        write_file("upload.bin", sample_bytes(8 << 20));
        server_options small;
        small.receive_buffer = 4096;
        scripted_server server(script{stall_deaf()}, small);
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin");
        post.set(TAV_HTTP_OPTION_IO_TIMEOUT, 300);
        EXPECT_EQ(0x80006u, post.run());
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

// Everything that a body can be made of, rebuilt for the second attempt.
void fill_body(transfer& post, int kind) {
    switch (kind) {
    case 0:
        post.set(TAV_HTTP_OPTION_APPEND_BODY, "some bytes", 10u);
        break;
    case 1:
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin");
        break;
    case 2:
        post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "a", "%d", 1);
        post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "b", "%d", 2);
        break;
    default:
        post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "a", "%d", 1);
        post.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "f", "upload.bin", "name");
        break;
    }
}

TEST(Upload, BodyIsRebuiltAfterARedirect) {
    library lib;
    work_dir dir;
    write_file("upload.bin", sample_bytes(50000));
    for (int kind = 0; kind < 4; kind++) {
        SCOPED_TRACE(kind);
        scripted_server server([](const received_request& request) {
            return request.target == "/to" ? response(200, "ok")
                                           : response(307, "", "Location: /to\r\n");
        });
        transfer post(server.url("/from"), TAV_HTTP_METHOD_POST);
        fill_body(post, kind);
        ASSERT_EQ(0u, post.run());
        ASSERT_EQ(2u, server.request_count());
        EXPECT_EQ("POST", server.request(1).method);
        EXPECT_FALSE(server.request(0).body.empty());
        EXPECT_TRUE(server.request(0).body == server.request(1).body);
        EXPECT_EQ(server.request(0).header("Content-Type"),
                  server.request(1).header("Content-Type"));
    }
}

TEST(Upload, IsRepeatedWhenAPooledConnectionBreaks) {
    library lib;
    work_dir dir;
    write_file("upload.bin", sample_bytes(50000));
    for (int kind = 0; kind < 4; kind++) {
        SCOPED_TRACE(kind);
        // The first connection serves one request; the body of the second one is its end.
        scripted_server server(std::vector<script>{
            {expect_request(), send_text(response(200, "first")), expect_request(), close_now()},
            {expect_request(), send_text(response(200, "second"))}});
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_KEEP_ALIVE, 1u, 30000, 0);
        ASSERT_EQ(0u, get.run());
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        fill_body(post, kind);
        ASSERT_EQ(0u, post.run());
        EXPECT_EQ("second", post.body());
        ASSERT_EQ(3u, server.request_count());
        EXPECT_EQ(2u, server.connection_count());
        EXPECT_FALSE(server.request(2).body.empty());
        EXPECT_TRUE(server.request(1).body == server.request(2).body);
    }
}

// The pooled connection is already gone when the body begins.
TEST(Upload, IsRepeatedWhenAPooledConnectionWasClosed) {
    library lib;
    work_dir dir;
    write_file("upload.bin", sample_bytes(200000));
    for (bool with_reset : {false, true}) {
        SCOPED_TRACE(with_reset);
        scripted_server server(
            std::vector<script>{{expect_request(), send_text(response(200, "first")), stall(),
                                 with_reset ? reset() : close_now()},
                                {expect_request(), send_text(response(200, "second"))}});
        transfer get(server.url());
        get.set(TAV_HTTP_OPTION_KEEP_ALIVE, 1u, 30000, 0);
        ASSERT_EQ(0u, get.run());
        server.release();
        ASSERT_TRUE(server.wait_for_disconnects(1));
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin");
        ASSERT_EQ(0u, post.run());
        EXPECT_EQ("second", post.body());
        EXPECT_TRUE(server.request(1).body == sample_bytes(200000));
    }
}

}  // namespace
