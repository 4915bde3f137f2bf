#include "target.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <random>

#include "system.h"
#include "tavhttpclient/tavhttpclient.h"
#include "url.h"

namespace fs = std::filesystem;

static const int MOST_LINKS = 40;

static const fs::perms WRITERS =
    fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write;

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
    transfer_target target{args.head            ? TARGET_NONE
                           : args.to_memory     ? TARGET_MEMORY
                           : args.auto_file     ? TARGET_AUTO_FILE
                           : args.output == "-" ? TARGET_STREAM
                                                : TARGET_FILE,
                           "",
                           false,
                           "",
                           "",
                           nullptr};
    if (target.kind == TARGET_STREAM) {
        target.stream = stdout;
    } else if (target.kind == TARGET_FILE) {
        target.replaces = !args.output.empty();
        target.path = target.replaces
                          ? in_directory(args, args.output)
                          : free_name(in_directory(args, name_of_url(url)), *taken, args.resume);
        taken->insert(target.path);
    }
    return target;
}

// What a link leads to, also when that does not exist.
static fs::path follow_links(fs::path path) {
    std::error_code error;
    for (int i = 0; i < MOST_LINKS && fs::is_symlink(path, error); i++) {
        fs::path next = fs::read_symlink(path, error);
        if (error) {
            break;
        }
        path = path.parent_path() / next;
    }
    return path;
}

std::string move_to_folder(transfer_target* target) {
    fs::path final = follow_links(fs::u8path(target->path));
    fs::path parent = final.has_parent_path() ? final.parent_path() : fs::path(".");
    std::random_device random;
    std::error_code error;
    for (int i = 0; i < 10; i++) {
        fs::path folder = parent / (".tavfetch-" + std::to_string(random()));
        if (make_private_folder(folder, &error)) {
            target->folder = folder.u8string();
            target->working = (folder / final.filename()).u8string();
            return "";
        }
        if (error) {
            break;
        }
    }
    return "cannot write in " + parent.u8string() + ": " + error.message();
}

static std::string open_special(transfer_target* target) {
    target->stream = open_stream(target->path);
    if (target->stream == nullptr) {
        return target->path + " cannot be opened: " + strerror(errno);
    }
    target->kind = TARGET_STREAM;
    return "";
}

std::string open_target(transfer_target* target, const arguments& args) {
    if (target->kind != TARGET_FILE) {
        return "";
    }
    std::error_code error;
    fs::file_status status = fs::status(fs::u8path(target->path), error);
    switch (status.type()) {
    case fs::file_type::not_found:
        break;
    case fs::file_type::regular:
        if ((status.permissions() & WRITERS) == fs::perms::none) {
            return target->path + " is write-protected";
        }
        break;
    case fs::file_type::directory:
        return target->path + " is a directory; --dir writes into it";
    case fs::file_type::fifo:
    case fs::file_type::character:
    case fs::file_type::block:
        return args.resume ? "--resume needs a regular file, and " + target->path + " is none"
                           : open_special(target);
    default:
        return target->path + (error ? ": " + error.message() : " is no file for writing");
    }
    if (args.resume || args.range) {
        target->working = target->path;
        return "";
    }
    return move_to_folder(target);
}

// Makes a second name and takes the first away: that never replaces, as a move may.
static bool move_to_free_name(const fs::path& from, const fs::path& to, std::error_code* error) {
    fs::create_hard_link(from, to, *error);
    if (!*error) {
        fs::remove(from, *error);
        return true;
    }
    std::error_code ignored;
    // Not every file system knows second names.
    if (fs::exists(fs::symlink_status(to, ignored))) {
        return false;
    }
    fs::rename(from, to, *error);
    return true;
}

static void settle_new_name(transfer_target* target, const std::string& better_name,
                            std::error_code* error) {
    fs::path wanted = fs::u8path(target->path);
    if (!better_name.empty()) {
        wanted.replace_filename(fs::u8path(better_name));
    }
    fs::path candidate = wanted;
    for (int i = 1; !move_to_free_name(fs::u8path(target->working), candidate, error); i++) {
        candidate = wanted;
        candidate += "." + std::to_string(i);
    }
    target->path = candidate.u8string();
}

std::string settle_target(transfer_target* target, const std::string& better_name) {
    if (target->kind != TARGET_FILE || target->folder.empty()) {
        return "";
    }
    std::error_code error;
    if (target->replaces) {
        fs::path working = fs::u8path(target->working);
        fs::path final = follow_links(fs::u8path(target->path));
        fs::file_status old = fs::status(final, error);
        if (old.type() == fs::file_type::regular) {
            fs::permissions(working, old.permissions() & fs::perms::all, error);
        }
        fs::rename(working, final, error);
    } else {
        settle_new_name(target, better_name, &error);
    }
    return error ? target->path + " cannot be written: " + error.message() : "";
}

bool close_target(transfer_target* target) {
    bool ok = true;
    if (target->stream == stdout) {
        ok = fflush(stdout) == 0;
    } else if (target->stream != nullptr) {
        ok = fclose(target->stream) == 0;
    }
    target->stream = nullptr;
    if (!target->folder.empty()) {
        std::error_code ignored;
        fs::remove(fs::u8path(target->working), ignored);
        // A session that did not end in time leaves a file of the library's in it.
        if (!fs::remove(fs::u8path(target->folder), ignored)) {
            fs::remove_all(fs::u8path(target->folder), ignored);
        }
        target->folder.clear();
    }
    return ok;
}

void set_file_time(const std::string& path, int64_t seconds) {
    // The clock of files begins at another time; the difference is a whole number of seconds.
    auto file_now = fs::file_time_type::clock::now().time_since_epoch();
    auto now = std::chrono::system_clock::now().time_since_epoch();
    auto difference = std::chrono::round<std::chrono::seconds>(file_now - now);
    std::error_code ignored;
    fs::last_write_time(fs::u8path(path),
                        fs::file_time_type(std::chrono::seconds(seconds) + difference), ignored);
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
