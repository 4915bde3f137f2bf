#include "target.h"

#include <cstring>
#include <filesystem>

#include "tavhttpclient/tavhttpclient.h"

namespace fs = std::filesystem;

std::string name_of_url(const std::string& url) {
    std::string path = url.substr(0, url.find_first_of("?#"));
    size_t scheme = path.find("://");
    size_t host_end = path.find('/', scheme == std::string::npos ? 0 : scheme + 3);
    std::string name = host_end == std::string::npos ? "" : path.substr(path.rfind('/') + 1);
    for (char& c : name) {
        if ((unsigned char)c < 32 || strchr("\\:*\"<>|", c) != nullptr) {
            c = '_';
        }
    }
    return name.empty() || name == "." || name == ".." ? "index.html" : name;
}

static std::string in_directory(const arguments& args, const std::string& name) {
    fs::path path = fs::u8path(name);
    if (!args.directory.empty() && path.is_relative()) {
        path = fs::u8path(args.directory) / path;
    }
    return path.u8string();
}

static std::string free_name(const std::string& path, const std::set<std::string>& taken,
                             bool may_exist) {
    std::string candidate = path;
    std::error_code ignored;
    for (int i = 1;
         taken.count(candidate) != 0 || (!may_exist && fs::exists(fs::u8path(candidate), ignored));
         i++) {
        candidate = path + "." + std::to_string(i);
    }
    return candidate;
}

transfer_target choose_target(const arguments& args, const std::string& url,
                              std::set<std::string>* taken) {
    if (args.head) {
        return {TARGET_NONE, ""};
    }
    if (args.to_memory) {
        return {TARGET_MEMORY, ""};
    }
    if (args.auto_file) {
        return {TARGET_AUTO_FILE, ""};
    }
    if (args.output == "-") {
        return {TARGET_STREAM, ""};
    }
    transfer_target target{TARGET_FILE, ""};
    if (!args.output.empty()) {
        target.path = in_directory(args, args.output);
    } else {
        target.path = free_name(in_directory(args, name_of_url(url)), *taken, args.resume);
    }
    taken->insert(target.path);
    return target;
}

std::string prepare_directory(const arguments& args) {
    if (args.directory.empty()) {
        return "";
    }
    std::error_code error;
    fs::path directory = fs::u8path(args.directory);
    fs::create_directories(directory, error);
    if (!fs::is_directory(directory, error)) {
        return "--dir " + args.directory + " cannot be created";
    }
    // The library creates the components of what it is given below the current directory, also
    // those of an absolute path; on a relative path to an existing directory that does nothing.
    fs::path relative = fs::relative(directory, error);
    if (!error && !relative.empty()) {
        directory = relative;
    }
    if (tavHTTPSetDownloadDirectory(directory.generic_u8string().c_str()) != 0) {
        return "--dir " + args.directory + " was refused";
    }
    return "";
}
