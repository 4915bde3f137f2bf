#include "values.h"

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "text.h"

static bool parse_position(const std::string& text, int64_t* result) {
    long long number = 0;
    if (!parse_number(text, &number)) {
        return false;
    }
    *result = number;
    return true;
}

// The library takes (0, 0) as no range and (0, -1) as everything, so the first byte alone and the
// last byte alone cannot be asked for.
std::string parse_range(const std::string& text, std::optional<byte_range>* result) {
    size_t dash = text.find('-');
    if (dash == std::string::npos) {
        return "--range wants A-B, A- or -N";
    }
    std::string first = text.substr(0, dash);
    std::string last = text.substr(dash + 1);
    byte_range range{0, -1};
    bool ok = (first.empty() || parse_position(first, &range.first)) &&
              (last.empty() || parse_position(last, &range.last)) && text.size() > 1;
    if (!ok || (!first.empty() && !last.empty() && range.last < range.first)) {
        return "--range wants A-B, A- or -N, with A not above B";
    }
    if (first.empty()) {
        if (range.last < 2) {
            return "--range -N needs N of at least 2";
        }
        range.last = -range.last;
    } else if (range.first == 0 && range.last == 0) {
        return "--range 0-0 cannot be asked for; use 0-1";
    }
    *result = range;
    return "";
}

std::string parse_duration(const std::string& option, const std::string& text, int32_t* result) {
    static const struct {
        const char* unit;
        double milliseconds;
    } units[] = {{"", 1}, {"ms", 1}, {"s", 1000}, {"m", 60000}, {"h", 3600000}};
    if (text.empty()) {
        return "";
    }
    size_t end = text.find_first_not_of("0123456789.");
    std::string unit = end == std::string::npos ? "" : text.substr(end);
    double number = strtod(text.c_str(), nullptr);
    for (const auto& entry : units) {
        double value = std::ceil(number * entry.milliseconds);
        if (unit == entry.unit && value >= 1 && value <= INT32_MAX) {
            *result = (int32_t)value;
            return "";
        }
    }
    return option + " wants a time such as 500ms, 5s, 2m or 1h, not '" + text + "'";
}

std::string parse_headers(const std::vector<std::string>& lines, std::vector<text_pair>* result) {
    for (const std::string& line : lines) {
        size_t colon = line.find(':');
        if (colon == std::string::npos || colon == 0 ||
            line.find_first_of("\r\n") != std::string::npos) {
            return "-H wants 'Name: value', not '" + line + "'";
        }
        std::string name = line.substr(0, colon);
        std::string lower = lower_case(name);
        // The library writes these itself, from the body and from other options.
        if (lower == "content-length" || lower == "transfer-encoding" || lower == "range" ||
            lower == "accept-encoding") {
            return "-H cannot set " + name + ": the library writes that line itself";
        }
        result->push_back({name, trim(line.substr(colon + 1))});
    }
    return "";
}

std::string parse_form(const std::vector<std::string>& fields,
                       const std::vector<std::string>& files, arguments* args) {
    for (const std::string& field : fields) {
        size_t equals = field.find('=');
        if (equals == std::string::npos || equals == 0) {
            return "--form wants NAME=VALUE, not '" + field + "'";
        }
        args->form_fields.push_back({field.substr(0, equals), field.substr(equals + 1)});
    }
    for (const std::string& file : files) {
        size_t equals = file.find('=');
        if (equals == std::string::npos || equals == 0 || equals + 1 == file.size()) {
            return "--form-file wants NAME=PATH[;FILENAME], not '" + file + "'";
        }
        std::string path = file.substr(equals + 1);
        size_t semicolon = path.rfind(';');
        std::string announced;
        if (semicolon != std::string::npos) {
            announced = path.substr(semicolon + 1);
            path.erase(semicolon);
        }
        args->form_files.push_back({file.substr(0, equals), path, announced});
    }
    return "";
}

bool read_whole(const std::string& path, std::string* result) {
    if (path == "-") {
        result->append(std::istreambuf_iterator<char>(std::cin), {});
        return true;
    }
    std::ifstream file(std::filesystem::u8path(path), std::ios::binary);
    if (!file) {
        return false;
    }
    result->append(std::istreambuf_iterator<char>(file), {});
    return !file.bad();
}

void add_listed_urls(const std::string& text, std::vector<std::string>* urls) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        line = trim(line);
        if (!line.empty() && line[0] != '#') {
            urls->push_back(line);
        }
    }
}
