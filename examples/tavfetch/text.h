// Small helpers for texts.
#ifndef EXAMPLES_TAVFETCH_TEXT_H
#define EXAMPLES_TAVFETCH_TEXT_H

#include <string>

std::string lower_case(std::string text);

// `text` without the white space around it.
std::string trim(const std::string& text);

// `text` without control characters: what a server names must not steer the terminal.
std::string printable(const std::string& text);

// False when the bytes hold control characters that no text has.
bool is_text(const char* data, size_t length);

bool is_utf8(const std::string& text);

// "%20" becomes a blank; what is no such triple stays.
std::string percent_decode(const std::string& text);

// A word that a POSIX shell reads back as `text`.
std::string shell_quote(const std::string& text);

// The number, when the text is 1 to 18 digits.
bool parse_number(const std::string& text, long long* result);

// "12.3 MiB"
std::string format_bytes(double bytes);

// "0:04", "1:02:03"
std::string format_seconds(double seconds);

#endif
