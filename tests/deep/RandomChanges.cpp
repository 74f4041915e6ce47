#include "tests/deep/RandomChanges.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>

namespace tarnwell::deep {

namespace {

constexpr unsigned kStepsBetweenLooks = 8;
constexpr std::array<const char*, 9> kNames = {"a",  "b",       "c", "d.txt", "e.txt", "f.pdf", "long name with spaces",
                                               "g~", "\xc3\xa4"};

std::string joined(const std::string& folder, const std::string& name) {
    return folder.empty() ? name : folder + "/" + name;
}

std::string parentOf(const std::string& relative) {
    const auto slash = relative.rfind('/');
    return slash == std::string::npos ? std::string() : relative.substr(0, slash);
}

std::string nameOf(const std::string& relative) { return relative.substr(relative.rfind('/') + 1); }

void write(const std::string& path, int flags, std::string_view content) {
    const int file = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | flags, 0644);
    if (file < 0) return;
    [[maybe_unused]] const auto written = ::write(file, content.data(), content.size());
    ::close(file);
}

}  // namespace

RandomChanges::RandomChanges(std::string root, std::uint64_t seed, Options options)
    : root_(std::move(root)), options_(std::move(options)), random_(seed) {}

std::string RandomChanges::absolute(const std::string& relative) const { return joined(root_, relative); }

void RandomChanges::lookAround() {
    all_.clear();
    files_.clear();
    folders_.assign(1, "");
    for (std::size_t i = 0; i < folders_.size(); ++i) {
        DIR* directory = ::opendir(absolute(folders_[i]).c_str());
        if (directory == nullptr) continue;
        while (const dirent* entry = ::readdir(directory)) {
            const std::string name = entry->d_name;
            if (name == "." || name == "..") continue;
            all_.push_back(joined(folders_[i], name));
            if (entry->d_type == DT_DIR) folders_.push_back(all_.back());
            if (entry->d_type == DT_REG) files_.push_back(all_.back());
        }
        ::closedir(directory);
    }
    // The order in which a file system gives names is its own affair.
    for (auto* list : {&all_, &folders_, &files_}) std::ranges::sort(*list);
}

const std::string& RandomChanges::anyPath() { return all_.empty() ? none_ : all_[below(all_.size())]; }
std::string RandomChanges::anywhere() { return anyPath(); }
std::string RandomChanges::folder() { return folders_[below(folders_.size())]; }
std::string RandomChanges::file() { return files_.empty() ? std::string() : files_[below(files_.size())]; }

std::string RandomChanges::freshName() {
    const auto choice = below(40);
    if (choice == 0) return ".Trash";
    if (choice == 1) return "Inbox";
    const std::string name = kNames[below(kNames.size())];
    return choice < 5 ? "." + name : name;
}

std::string RandomChanges::step() {
    if (sinceLook_++ % kStepsBetweenLooks == 0) lookAround();
    if (all_.size() > options_.mostNames) {
        const auto done = remove();
        lookAround();
        return done;
    }
    switch (below(12)) {
        case 0:
        case 1:
        case 2:
            return create();
        case 3:
        case 4:
            return change();
        case 5:
        case 6:
        case 7:
        case 8:
            return rename();
        case 9:
            return save();
        case 10:
            return hide();
        default:
            return remove();
    }
}

std::string RandomChanges::create() {
    const std::string place = joined(folder(), freshName());
    const std::string path = absolute(place);
    switch (below(8)) {
        case 0:
        case 1:
        case 2:
            write(path, O_CREAT | O_EXCL, std::string(below(50), 'x'));
            return "create " + place;
        case 3:
        case 4:
            ::mkdir(path.c_str(), 0755);
            return "mkdir " + place;
        case 5: {
            const std::string target = below(2) == 0 ? options_.outside : anywhere();
            [[maybe_unused]] const int made = ::symlink(target.c_str(), path.c_str());
            return "symlink " + place + " -> " + target;
        }
        case 6: {
            const std::string target = file();
            if (!options_.makesHardLinks || target.empty()) return "nothing";
            [[maybe_unused]] const int made = ::link(absolute(target).c_str(), path.c_str());
            return "link " + target + " " + place;
        }
        default:
            ::mkfifo(path.c_str(), 0644);
            return "mkfifo " + place;
    }
}

std::string RandomChanges::change() {
    if (below(4) == 0) {
        const std::string place = anywhere();
        if (place.empty()) return "nothing";
        ::fchmodat(AT_FDCWD, absolute(place).c_str(), below(2) == 0 ? 0755 : 0700, AT_SYMLINK_NOFOLLOW);
        return "chmod " + place;
    }
    const std::string place = file();
    if (place.empty()) return "nothing";
    if (below(4) == 0) {
        const std::string value = std::to_string(below(100));
        ::lsetxattr(absolute(place).c_str(), "user.note", value.data(), value.size(), 0);
        return "attribute of " + place;
    }
    write(absolute(place), below(2) == 0 ? O_APPEND : O_TRUNC, std::string(1 + below(30), 'y'));
    return "write " + place;
}

std::string RandomChanges::rename() {
    const std::string from = anywhere();
    if (from.empty()) return "nothing";
    std::string to;
    unsigned flags = 0;
    const auto choice = below(6);
    if (choice == 0) {  // in its folder, to a free name
        to = joined(parentOf(from), freshName());
        flags = RENAME_NOREPLACE;
    } else if (choice == 1) {  // elsewhere, under its name
        to = joined(folder(), nameOf(from));
        flags = RENAME_NOREPLACE;
    } else if (choice == 2) {  // elsewhere, under any name, over what is there
        to = joined(folder(), freshName());
    } else if (choice == 3) {  // over a file
        to = file();
    } else {
        to = anywhere();
        flags = RENAME_EXCHANGE;
    }
    if (to.empty()) return "nothing";
    ::renameat2(AT_FDCWD, absolute(from).c_str(), AT_FDCWD, absolute(to).c_str(), flags);
    return (flags == RENAME_EXCHANGE ? "exchange " : "rename ") + from + " " + to;
}

std::string RandomChanges::save() {
    const std::string place = file();
    if (place.empty()) return "nothing";
    const std::string content(1 + below(60), 'z');
    if (below(2) == 0) {
        const std::string fresh = joined(parentOf(place), ".save-" + std::to_string(below(1000)));
        write(absolute(fresh), O_CREAT | O_EXCL, content);
        ::rename(absolute(fresh).c_str(), absolute(place).c_str());
        return "save " + place + " by renaming over it";
    }
    ::rename(absolute(place).c_str(), absolute(place + "~").c_str());
    write(absolute(place), O_CREAT | O_EXCL, content);
    return "save " + place + " with a backup";
}

std::string RandomChanges::hide() {
    const std::string from = anywhere();
    if (from.empty()) return "nothing";
    const std::string name = nameOf(from);
    const std::string to = joined(parentOf(from), name.starts_with('.') ? name.substr(1) : "." + name);
    ::renameat2(AT_FDCWD, absolute(from).c_str(), AT_FDCWD, absolute(to).c_str(), RENAME_NOREPLACE);
    return "rename " + from + " " + to;
}

std::string RandomChanges::remove() {
    const std::string place = anywhere();
    if (place.empty()) return "nothing";
    std::error_code ignored;
    std::filesystem::remove_all(absolute(place), ignored);
    return "remove " + place;
}

}  // namespace tarnwell::deep
