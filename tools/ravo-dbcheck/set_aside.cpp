// The names beside a database.
#include "set_aside.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <vector>

#include "handles.h"

namespace {

constexpr char kept_mark[] = "-damaged-";
constexpr char stamp_format[] = "%Y%m%dT%H%M%SZ";
constexpr size_t stamp_size = sizeof "YYYYMMDDThhmmssZ";
constexpr time_t last_stamp = 253402300740;  // a minute before the years have five digits
constexpr const char* side_suffixes[] = {"-journal", "-wal", "-shm", "-commit"};

int result_of(int status) { return status == 0 ? 0 : errno; }

std::string folder_of(const std::string& path) {
    return std::filesystem::path(path).parent_path().string();
}

int sync_path(const std::string& path, int flags) {
    const descriptor file(open(path.c_str(), flags | O_CLOEXEC));
    return file.is_open() ? result_of(fsync(file.get())) : errno;
}
int sync_folder(const std::string& path) {
    return sync_path(folder_of(path), O_RDONLY | O_DIRECTORY);
}

std::string kept_name(const std::string& database, time_t when) {
    tm fields = {};
    char stamp[stamp_size] = {};
    gmtime_r(&when, &fields);
    (void)strftime(stamp, sizeof stamp, stamp_format, &fields);
    return database + kept_mark + stamp;
}

bool is_stamp(const std::string& text) {
    constexpr std::string_view form = "00000000T000000Z";
    return std::ranges::equal(text, form, [](char c, char of_form) {
        return of_form == '0' ? c >= '0' && c <= '9' : c == of_form;
    });
}

// The kept files without what was taken along, oldest first.
std::vector<std::string> list_kept(const std::string& database) {
    const std::string start = database + kept_mark;
    std::vector<std::string> found;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder_of(database), error)) {
        std::string path = entry.path().string();
        if (path.starts_with(start) && is_stamp(path.substr(start.size()))) {
            found.push_back(std::move(path));
        }
    }
    std::ranges::sort(found);
    return found;
}

// The names are in the order in which they were given, also when the clock is wrong: one is never
// before the newest that there is.
time_t time_of_next(const std::vector<std::string>& kept) {
    time_t when = time(nullptr);
    tm fields = {};
    if (!kept.empty() && strptime(&kept.back()[kept.back().size() - stamp_size + 1], stamp_format,
                                  &fields) != nullptr) {
        when = std::max(when, timegm(&fields) + 1);
    }
    return std::clamp<time_t>(when, 0, last_stamp);
}

// A symbolic link to a file is none of its names.
bool is_same_file(const std::string& one, const std::string& other) {
    struct stat first = {}, second = {};
    return lstat(one.c_str(), &first) == 0 && lstat(other.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

}  // namespace

std::string salvage_path(const std::string& database) { return database + "-salvage"; }

int remove_leftover(const std::string& database) {
    const int error = result_of(unlink(salvage_path(database).c_str()));
    return error == ENOENT ? 0 : error;
}

std::string odd_side_file(const std::string& database) {
    for (const std::string suffix : side_suffixes) {
        struct stat status = {};
        std::string path = database + suffix;
        if (lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) return path;
    }
    return "";
}

int keep_damaged(const std::string& database, std::string& kept) {
    const std::vector<std::string> before = list_kept(database);
    for (const std::string& path : before) {
        if (!is_same_file(path, database)) continue;
        kept = path;
        return 0;
    }
    // A name that is taken was given within this second.
    int error = EEXIST;
    for (time_t when = time_of_next(before); error == EEXIST; ++when) {
        kept = kept_name(database, when);
        error = result_of(link(database.c_str(), kept.c_str()));
    }
    return error != 0 ? error : sync_folder(database);
}

int move_side_files(const std::string& database, const std::string& kept) {
    for (const std::string suffix : side_suffixes) {
        const int error = result_of(rename((database + suffix).c_str(), (kept + suffix).c_str()));
        if (error != 0 && error != ENOENT) return error;
    }
    return sync_folder(database);
}

int put_in_place(const std::string& database) {
    const std::string saved = salvage_path(database);
    struct stat status = {};
    int error = result_of(stat(database.c_str(), &status));
    // Only root may give a file away; anybody else's new file is where it belongs.
    if (error == 0) (void)!chown(saved.c_str(), status.st_uid, status.st_gid);
    if (error == 0) error = result_of(chmod(saved.c_str(), status.st_mode & 0777U));
    if (error == 0) error = sync_path(saved, O_RDONLY);
    if (error == 0) error = result_of(rename(saved.c_str(), database.c_str()));
    return error != 0 ? error : sync_folder(database);
}

void remove_oldest(const std::string& database, const std::string& just_kept) {
    std::vector<std::string> kept = list_kept(database);
    std::erase(kept, just_kept);
    for (size_t n = 0; n + kept_files <= kept.size(); ++n) {
        for (const std::string suffix : side_suffixes) (void)unlink((kept[n] + suffix).c_str());
        (void)unlink(kept[n].c_str());
    }
}
