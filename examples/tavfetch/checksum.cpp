#include "checksum.h"

#include <filesystem>
#include <fstream>
#include <vector>

#include "text.h"

std::string parse_checksum(const std::string& text, std::optional<expected_checksum>* result) {
    size_t equals = text.find('=');
    expected_checksum sum;
    if (equals != std::string::npos) {
        sum.algorithm = lower_case(text.substr(0, equals));
        sum.digest = lower_case(trim(text.substr(equals + 1)));
    }
    size_t length = sum.algorithm == "md5" ? 32 : sum.algorithm == "sha256" ? 64 : 0;
    if (length == 0 || sum.digest.size() != length ||
        sum.digest.find_first_not_of("0123456789abcdef") != std::string::npos) {
        return "--checksum wants md5= and 32, or sha256= and 64 hexadecimal digits";
    }
    *result = sum;
    return "";
}

checksum begin_checksum(const std::string& algorithm) {
    checksum sum(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestInit_ex(sum.get(), algorithm == "md5" ? EVP_md5() : EVP_sha256(), nullptr);
    return sum;
}

void add_to_checksum(const checksum& sum, const void* data, size_t length) {
    EVP_DigestUpdate(sum.get(), data, length);
}

// An engine that failed on the way gives no digest, which equals no expected one.
std::string finish_checksum(const checksum& sum) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    std::string text;
    if (EVP_DigestFinal_ex(sum.get(), digest, &length) == 1) {
        static const char digits[] = "0123456789abcdef";
        for (unsigned int i = 0; i < length; i++) {
            text += digits[digest[i] >> 4];
            text += digits[digest[i] & 15];
        }
    }
    return text;
}

std::string checksum_of_file(const std::string& algorithm, const std::string& path) {
    std::ifstream file(std::filesystem::u8path(path), std::ios::binary);
    if (!file) {
        return "";
    }
    checksum sum = begin_checksum(algorithm);
    std::vector<char> buffer(1 << 16);
    while (file.read(buffer.data(), (std::streamsize)buffer.size()) || file.gcount() > 0) {
        add_to_checksum(sum, buffer.data(), (size_t)file.gcount());
    }
    return file.bad() ? "" : finish_checksum(sum);
}
