// Reads the values of options. Each function returns "" or a complaint.
#ifndef EXAMPLES_TAVFETCH_VALUES_H
#define EXAMPLES_TAVFETCH_VALUES_H

#include <string>
#include <vector>

#include "arguments.h"

// "A-B", "A-" and "-N".
std::string parse_range(const std::string& text, std::optional<byte_range>* result);

// "500ms", "5s", "2m", "1h", "1.5s"; a bare number is milliseconds. An empty text changes nothing.
std::string parse_duration(const std::string& option, const std::string& text, int32_t* result);

// "Name: value" lines.
std::string parse_headers(const std::vector<std::string>& lines, std::vector<text_pair>* result);

// NAME=VALUE and NAME=PATH[;FILENAME].
std::string parse_form(const std::vector<std::string>& fields,
                       const std::vector<std::string>& files, arguments* args);

// Appends the whole file, or standard input for "-".
bool read_whole(const std::string& path, std::string* result);

// One URL a line; empty lines and lines that begin with # are skipped.
void add_listed_urls(const std::string& text, std::vector<std::string>* urls);

#endif
