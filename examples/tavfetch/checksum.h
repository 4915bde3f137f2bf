// Checksums that the user gives and that a body must have.
#ifndef EXAMPLES_TAVFETCH_CHECKSUM_H
#define EXAMPLES_TAVFETCH_CHECKSUM_H

#include <openssl/evp.h>

#include <memory>
#include <optional>
#include <string>

struct expected_checksum {
    std::string algorithm;  // "md5" or "sha256"
    std::string digest;     // lower-case hexadecimal
};

// "md5=..." or "sha256=...". Returns "" or a complaint.
std::string parse_checksum(const std::string& text, std::optional<expected_checksum>* result);

// A checksum that grows with the bytes that it is given.
typedef std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> checksum;

checksum begin_checksum(const std::string& algorithm);
void add_to_checksum(const checksum& sum, const void* data, size_t length);

// The digest in lower-case hexadecimal.
std::string finish_checksum(const checksum& sum);

// The digest of a file; empty when it cannot be read.
std::string checksum_of_file(const std::string& algorithm, const std::string& path);

#endif
