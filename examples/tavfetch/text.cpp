#include "text.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <nlohmann/json.hpp>

std::string lower_case(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return (char)tolower(c); });
    return text;
}

std::string trim(const std::string& text) {
    size_t first = text.find_first_not_of(" \t\r\n");
    return first == std::string::npos
               ? ""
               : text.substr(first, text.find_last_not_of(" \t\r\n") + 1 - first);
}

std::string printable(const std::string& text) {
    std::string clean = text;
    for (size_t i = 0; i < clean.size(); i++) {
        unsigned char byte = (unsigned char)clean[i];
        // The controls above 0x7f are two bytes of UTF-8; terminals obey them too.
        unsigned char next = i + 1 < clean.size() ? (unsigned char)clean[i + 1] : 0;
        if (byte == 0xc2 && next >= 0x80 && next < 0xa0) {
            clean.replace(i, 2, "?");
        } else if (byte < 0x20 || byte == 0x7f) {
            clean[i] = '?';
        }
    }
    return clean;
}

// Line breaks, tabs and the escapes of coloured text are left; a zero byte is what gives most
// formats away.
bool is_text(const char* data, size_t length) {
    return std::all_of(data, data + length, [](unsigned char c) {
        return c >= 0x20 || (c >= 0x07 && c <= 0x0d) || c == 0x1b;
    });
}

bool is_utf8(const std::string& text) {
    try {
        nlohmann::json(text).dump();
        return true;
    } catch (const nlohmann::json::type_error&) {
        return false;
    }
}

std::string percent_decode(const std::string& text) {
    std::string result;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '%' && i + 2 < text.size() && isxdigit((unsigned char)text[i + 1]) &&
            isxdigit((unsigned char)text[i + 2])) {
            result += (char)std::stoi(text.substr(i + 1, 2), nullptr, 16);
            i += 2;
        } else {
            result += text[i];
        }
    }
    return result;
}

std::string shell_quote(const std::string& text) {
    static const char plain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                "_@%+=:,./-";
    if (!text.empty() && text.find_first_not_of(plain) == std::string::npos) {
        return text;
    }
    std::string quoted = "'";
    for (char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

bool parse_number(const std::string& text, long long* result) {
    if (text.empty() || text.size() > 18 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    *result = std::stoll(text);
    return true;
}

std::string format_bytes(double bytes) {
    static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    size_t unit = 0;
    for (; bytes >= 1024 && unit < 4; unit++) {
        bytes /= 1024;
    }
    char text[32];
    snprintf(text, sizeof(text), unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
    return text;
}

std::string format_seconds(double seconds) {
    long long whole = (long long)(seconds + 0.5);
    char text[32];
    if (whole >= 3600) {
        snprintf(text, sizeof(text), "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60,
                 whole % 60);
    } else {
        snprintf(text, sizeof(text), "%lld:%02lld", whole / 60, whole % 60);
    }
    return text;
}
