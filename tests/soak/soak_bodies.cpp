#include "tests/soak/soak_bodies.h"

#include "tests/support/host.h"

#include <zlib.h>

#include <cstdio>
#include <cstdlib>

namespace {

std::vector<soak_body> make_bodies() {
    // Around the sizes of the library's buffers, and one that compresses well.
    std::vector<std::string> all;
    for (std::size_t size : {0, 1, 1000, 4096, 32767, 32768, 32769, 100000}) {
        all.push_back(sample_bytes(size));
    }
    std::string text;
    while (text.size() < 300000) {
        text += "Line " + std::to_string(text.size()) + " of a text that compresses.\n";
    }
    all.push_back(text);
    all.push_back(sample_bytes(2000000));
    std::vector<soak_body> bodies;
    for (std::string& bytes : all) {
        soak_body body;
        body.zipped = gzip_bytes(bytes);
        body.crc = crc_of(bytes.data(), bytes.size());
        body.bytes = std::move(bytes);
        bodies.push_back(std::move(body));
    }
    return bodies;
}

std::string answer_range(const std::string& range, const std::string& bytes) {
    unsigned long first = 0, last = 0;
    int fields = std::sscanf(range.c_str(), "bytes=%lu-%lu", &first, &last);
    if (fields < 2 || last >= bytes.size()) {
        last = bytes.size() - 1;
    }
    if (fields < 1 || first >= bytes.size()) {
        return response(416, "");
    }
    return response(206, bytes.substr(first, last - first + 1),
                    "Content-Range: bytes " + std::to_string(first) + "-" + std::to_string(last) +
                        "/" + std::to_string(bytes.size()) + "\r\n");
}

}  // namespace

const std::vector<soak_body>& soak_bodies() {
    static const std::vector<soak_body> bodies = make_bodies();
    return bodies;
}

std::uint32_t crc_of(const char* bytes, std::size_t length) {
    return static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(bytes), static_cast<uInt>(length)));
}

std::string upload_receipt(const std::string& bytes) {
    char text[64];
    std::snprintf(text, sizeof text, "%zu bytes, %08x", bytes.size(),
                  crc_of(bytes.data(), bytes.size()));
    return text;
}

std::string answer_request(const std::string& method, const std::string& target,
                           const std::string& range, const std::string& body) {
    if (target == "/echo") {
        return response(200, upload_receipt(body));
    }
    std::size_t slash = target.find('/', 1);
    std::string mode = target.substr(1, slash - 1);
    std::size_t index = slash == std::string::npos
                            ? soak_bodies().size()
                            : std::strtoul(target.c_str() + slash + 1, nullptr, 10);
    if (index >= soak_bodies().size()) {
        return response(404, "no such body");
    }
    const soak_body& chosen = soak_bodies()[index];
    if (mode == "form") {
        return response(200, body.find(chosen.bytes) != std::string::npos ? "found" : "missing");
    }
    if (mode == "moved") {
        return response(302, "", "Location: /plain/" + std::to_string(index) + "\r\n");
    }
    if (method == "HEAD") {
        return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(chosen.bytes.size()) +
               "\r\n\r\n";
    }
    if (!range.empty()) {
        return answer_range(range, chosen.bytes);
    }
    if (mode == "chunked") {
        return chunked_response(200, chosen.bytes, 5000);
    }
    if (mode == "zip") {
        return response(200, chosen.zipped, "Content-Encoding: gzip\r\n");
    }
    if (mode == "close") {
        return "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + chosen.bytes;
    }
    return response(200, chosen.bytes);
}
