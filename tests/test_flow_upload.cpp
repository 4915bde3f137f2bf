// Uploads: what the server receives byte for byte, what the host hears of the progress, and what
// happens when files or connections are not what they were.
#include "tests/support/host.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::size_t chunk = 16384;

using sizes = std::vector<std::size_t>;

const char* const no_text = nullptr;

// The sizes in which content of this size goes out.
sizes chunks_of(std::size_t size) {
    sizes all(size / chunk, chunk);
    if (size % chunk != 0) {
        all.push_back(size % chunk);
    }
    return all;
}

// The body went out in these pieces, and the host heard of each.
void expect_progress(const transfer& post, const received_request& request, const sizes& pieces) {
    std::size_t sent = 0;
    std::string expected, seen;
    sizes all = {request.raw.size() - request.body.size()};
    all.insert(all.end(), pieces.begin(), pieces.end());
    for (std::size_t piece : all) {
        expected += std::to_string(sent) + " " + std::to_string(piece) + " " +
                    std::to_string(request.raw.size()) + "\n";
        sent += piece;
    }
    for (const event& one : post.events()) {
        seen += one.name == "progress" ? one.detail + "\n" : "";
    }
    EXPECT_EQ(expected, seen);
}

TEST(Upload, RawBodiesArriveInPieces) {
    library lib;
    work_dir dir;
    for (std::size_t size :
         {std::size_t{0}, std::size_t{1}, chunk - 1, chunk, chunk + 1, std::size_t{1000003}}) {
        for (bool from_file : {false, true}) {
            SCOPED_TRACE(testing::Message() << size << (from_file ? " file" : " memory"));
            scripted_server server(always(response(200, "ok")));
            std::string bytes = sample_bytes(size);
            transfer post(server.url("/up"), TAV_HTTP_METHOD_POST);
            post.record();
            if (from_file) {
                write_file("upload.bin", bytes);
                post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin");
            } else if (size > 0) {
                post.set_body(bytes.substr(0, 1));
                post.set_body(bytes.substr(1));
            }
            ASSERT_EQ(0u, post.run());
            received_request request = server.request(0);
            EXPECT_EQ("POST", request.method);
            EXPECT_EQ(std::to_string(size), request.header("Content-Length"));
            EXPECT_TRUE(size == 0 || request.header("Content-Type") == "application/octet-stream");
            EXPECT_TRUE(request.body == bytes);
            expect_progress(post, request, chunks_of(size));
        }
    }
}

TEST(Upload, UrlEncodedForm) {
    library lib;
    scripted_server server(always(response(200, "ok")));
    transfer post(server.url(), TAV_HTTP_METHOD_POST);
    post.record();
    std::string big(30000, 'v');
    post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "a b", "%s&%d", "x=y", 7);
    post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "big", "%s", big.c_str());
    ASSERT_EQ(0u, post.run());
    received_request request = server.request(0);
    EXPECT_EQ("application/x-www-form-urlencoded; charset=UTF-8", request.header("Content-Type"));
    EXPECT_EQ("a%20b=x%3Dy%267&big=" + big, request.body);
    expect_progress(post, request, chunks_of(request.body.size()));
}

TEST(Upload, MultipartForm) {
    library lib;
    work_dir dir;
    std::string file = sample_bytes(20000);
    write_file("photo.jpg", file);
    write_file("empty.bin", "");
    const char bytes[] = {'\0', '\r', '\n', '-', '-'};
    scripted_server server(always(response(200, "ok")));
    transfer post(server.url(), TAV_HTTP_METHOD_POST);
    post.record();
    post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "field", "%s", "value");
    post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "none", no_text);
    post.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "file", "./photo.jpg", no_text);
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
    sizes pieces;
    for (const auto& part : parts) {
        for (const std::string& text : part) {
            expected += text;
            sizes more = chunks_of(text.size());
            pieces.insert(pieces.end(), more.begin(), more.end());
        }
    }
    EXPECT_TRUE(request.body == expected) << request.body;
    expect_progress(post, request, pieces);
}

TEST(Upload, MissingFileSendsNothing) {
    library lib;
    work_dir dir;
    for (bool in_form : {false, true}) {
        SCOPED_TRACE(in_form ? "form" : "raw");
        scripted_server server(always(response(200, "ok")));
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.record();
        if (in_form) {
            post.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "f", "missing", "name");
        } else {
            post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "missing");
        }
        EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_OPEN_UPLOAD_FILE}, post.run());
        EXPECT_EQ("connecting connected complete", post.event_names());
        post.close();  // Only now does its connection end.
        ASSERT_TRUE(server.wait_for_disconnects(1));
        EXPECT_EQ(0u, server.request_count());
    }
}

TEST(Upload, FileThatChangesItsSize) {
    const std::string bytes = sample_bytes(40000);
    library lib;
    work_dir dir;
    for (std::size_t now : {std::size_t{0}, chunk, std::size_t{20000}, std::size_t{90000}}) {
        SCOPED_TRACE(now);
        write_file("upload.bin", bytes);
        scripted_server server(always(response(200, "ok")));
        std::atomic<bool> changed{false};
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin");
        post.set(TAV_HTTP_OPTION_KEEP_ALIVE, 1u, 30000, 0);
        // At the first call, for the head, the file is open and sized.
        post.at("progress", [&](transfer&) {
            EXPECT_TRUE(changed.exchange(true) ||
                        truncate("upload.bin", static_cast<off_t>(now)) == 0);
        });
        if (now < bytes.size()) {
            EXPECT_EQ(std::uint32_t{TAV_HTTP_ERROR_CODE_FAIL_READ_UPLOAD_FILE}, post.run());
            continue;
        }
        EXPECT_EQ(0u, post.run()) << "what was announced is sent";
        transfer next(server.url());
        EXPECT_EQ(0u, next.run());
        EXPECT_EQ(1u, server.connection_count());
        EXPECT_TRUE(server.request(0).body == bytes);
        EXPECT_EQ("GET", server.request(1).method) << "bytes too many have spoilt the next request";
    }
}

// The size of a file beyond 32 bits must survive into the head and the progress figures.
TEST(Upload, FileBeyondFourGigabytes) {
    library lib;
    work_dir dir;
    const off_t size = (static_cast<off_t>(5) << 30) + 7;
    write_file("sparse.bin", "");
    ASSERT_EQ(0, truncate("sparse.bin", size));
    for (bool in_form : {false, true}) {
        SCOPED_TRACE(in_form ? "form" : "raw");
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
        EXPECT_EQ(code::cancel, post.wait());

        std::string raw = server.request(0).raw;
        const std::string label = "Content-Length: ";
        std::size_t place = raw.find(label);
        ASSERT_NE(std::string::npos, place);
        long long announced = std::atoll(raw.c_str() + place + label.size());
        EXPECT_GE(announced, size);
        EXPECT_LE(announced, size + (in_form ? 400 : 0));
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
        EXPECT_EQ(code::cancel, post.run());
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
        scripted_server server(script{stall_deaf()}, server_options{false, 4096});
        transfer post(server.url(), TAV_HTTP_METHOD_POST);
        post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin");
        post.set(TAV_HTTP_OPTION_IO_TIMEOUT, 300);
        EXPECT_EQ(code::send_timeout, post.run());
        EXPECT_EQ(1u, server.connection_count());
    }
    EXPECT_TRUE(descriptors.back_to_start());
}

// Whatever a body is made of, it is built again for the next request of its session: behind a
// redirect, and on a new connection when a kept one breaks at the body or was closed before it.
TEST(Upload, BodyIsRebuilt) {
    const std::function<void(transfer&)> bodies[] = {
        [](transfer& post) { post.set_body("some bytes"); },
        [](transfer& post) { post.set(TAV_HTTP_OPTION_UPLOAD_FILE, "upload.bin"); },
        [](transfer& post) {
            post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "a", "%d", 1);
            post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "b", "%d", 2);
        },
        [](transfer& post) {
            post.set(TAV_HTTP_OPTION_ADD_FORM_FIELD, "a", "%d", 1);
            post.set(TAV_HTTP_OPTION_ADD_FORM_FILE, "f", "upload.bin", "name");
        }};
    const step first = send_text(response(200, "first"));
    const script second = reply_with(response(200, "second"));
    struct {
        const char* title;
        std::vector<script> scripts;
        std::size_t gets;      // a connection is made by a first transfer
        std::size_t attempts;  // that the server sees whole
    } ways[] = {
        {"redirect", {reply_with(response(307, "", "Location: /to\r\n")), second}, 0, 2},
        {"breaks", {{expect_request(), first, expect_request(), close_now()}, second}, 1, 2},
        {"closed", {{expect_request(), first, stall(), close_now()}, second}, 1, 1},
        {"reset", {{expect_request(), first, stall(), reset()}, second}, 1, 1},
    };
    library lib;
    work_dir dir;
    write_file("upload.bin", sample_bytes(200000));
    for (const auto& way : ways) {
        for (std::size_t kind = 0; kind < std::size(bodies); kind++) {
            SCOPED_TRACE(testing::Message() << way.title << ", body " << kind);
            scripted_server server(way.scripts);
            for (std::size_t i = 0; i < way.gets; i++) {
                transfer get(server.url());
                get.set(TAV_HTTP_OPTION_KEEP_ALIVE, 1u, 30000, 0);
                ASSERT_EQ(0u, get.run());
            }
            if (way.attempts == 1) {
                server.release();
                ASSERT_TRUE(server.wait_for_disconnects(1));
            }
            transfer post(server.url(), TAV_HTTP_METHOD_POST);
            bodies[kind](post);
            ASSERT_EQ(0u, post.run());
            EXPECT_EQ("second", post.body());
            EXPECT_EQ(2u, server.connection_count());
            ASSERT_EQ(way.gets + way.attempts, server.request_count());
            received_request last = server.request(way.gets + way.attempts - 1);
            EXPECT_EQ("POST", last.method);
            EXPECT_TRUE(kind != 1 || last.body == sample_bytes(200000));
            EXPECT_FALSE(last.body.empty());
            received_request before = server.request(way.gets);
            EXPECT_TRUE(before.body == last.body);
            EXPECT_EQ(before.header("Content-Type"), last.header("Content-Type"));
        }
    }
}

}  // namespace
