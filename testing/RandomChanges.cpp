#include "testing/RandomChanges.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <string_view>

#include "items/LocalItem.h"
#include "platform/archive/KeyedArchive.h"
#include "platform/base/Descriptor.h"

namespace tarnwell::testing {

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
    folders_ = options_.areas;
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
    if (options_.isWide && below(3) == 0) return wide();
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
            const std::string& area = options_.areaWithoutHardLinks;
            const auto lies = [&](const std::string& at) { return !area.empty() && at.starts_with(area + "/"); };
            if (!options_.makesHardLinks || target.empty() || lies(target) || lies(place)) return "nothing";
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

// ---- what the programs of a desktop do ---------------------------------------------------------------------------

std::string RandomChanges::area() { return options_.areas[below(options_.areas.size())]; }

std::string RandomChanges::wide() {
    switch (below(16)) {
        case 0:
        case 1:
        case 2:
            return writeInPlace();
        case 3:
        case 4:
        case 5:
            return saveAnew();
        case 6:
        case 7:
        case 8:
            return mark();
        case 9:
        case 10:
        case 11:
            return trash();
        case 12:
        case 13:
            return packUp();
        case 14:
            return below(6) == 0 ? tree() : below(2) == 0 ? unpack() : moveTop();
        default:
            return moveTop();
    }
}

/// The same file with other bytes: through a memory map, cut, or lengthened without content.
std::string RandomChanges::writeInPlace() {
    const std::string place = file();
    if (place.empty()) return "nothing";
    const Descriptor opened(::open(absolute(place).c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (!opened.valid()) return "nothing";
    const off_t length = static_cast<off_t>(1 + below(5000));
    if (::ftruncate(opened.get(), length) != 0 || below(2) == 0) {
        return "truncate " + place + " to " + std::to_string(length);
    }
    // Somebody may cut the file meanwhile, which ends whoever writes past its end then: another process does it.
    const std::uint64_t at = below(static_cast<std::uint64_t>(length));
    const pid_t writer = ::fork();
    if (writer == 0) {
        (void)std::signal(SIGBUS, [](int) { ::_exit(0); });
        const auto size = static_cast<std::size_t>(length);
        void* mapped = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, opened.get(), 0);
        if (mapped != MAP_FAILED) {
            static_cast<char*>(mapped)[at] = 'm';
            ::msync(mapped, size, MS_SYNC);
        }
        ::_exit(0);
    }
    if (writer > 0) ::waitpid(writer, nullptr, 0);
    return "map " + place + " with " + std::to_string(length) + " bytes";
}

/// The ways to save in which the new content is another file.
std::string RandomChanges::saveAnew() {
    const std::string place = file();
    if (place.empty()) return "nothing";
    const std::string path = absolute(place);
    const std::string content(1 + below(60), 's');
    const std::string fresh = joined(parentOf(place), (below(2) == 0 ? ".new-" : "new-") + std::to_string(below(1000)));
    switch (below(4)) {
        case 0: {
            write(absolute(fresh), O_CREAT | O_EXCL, content);
            ::renameat2(AT_FDCWD, absolute(fresh).c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE);
            if (below(4) != 0) ::unlink(absolute(fresh).c_str());
            return "save " + place + " by exchange with " + fresh;
        }
        case 1:
            ::unlink(path.c_str());
            write(path, O_CREAT | O_EXCL, content);
            return "save " + place + " after removing it";
        case 2: {
            const std::string backup = joined(parentOf(place), nameOf(place) + ".bak");
            ::rename(path.c_str(), absolute(backup).c_str());
            write(path, O_CREAT | O_EXCL, content);
            if (below(2) == 0) ::unlink(absolute(backup).c_str());
            return "save " + place + " with the backup " + backup;
        }
        default: {
            const std::string elsewhere = joined(area(), ".part-" + std::to_string(below(1000)));
            write(absolute(elsewhere), O_CREAT | O_EXCL, content);
            ::rename(absolute(elsewhere).c_str(), path.c_str());
            return "save " + place + " by renaming " + elsewhere + " over it";
        }
    }
}

/// Gives or takes tags and ranks.
std::string RandomChanges::mark() {
    const std::string place = below(4) == 0 ? anywhere() : file();
    if (place.empty()) return "nothing";
    const bool isTag = below(2) == 0;
    const std::string name =
        "user." + (isTag ? items::LocalItem::xattrTagDataName : items::LocalItem::xattrFavoriteRankName);
    if (below(4) == 0) {
        ::lremovexattr(absolute(place).c_str(), name.c_str());
        return std::string("no ") + (isTag ? "tags" : "rank") + " for " + place;
    }
    const std::uint64_t value = below(50);
    const Bytes bytes = isTag ? archive::archiveRoot({archive::ArchivedArray{{"tag " + std::to_string(value)}}})
                              : archive::archiveRoot({archive::Integer::fromUnsigned(value)});
    ::lsetxattr(absolute(place).c_str(), name.c_str(), bytes.data(), bytes.size(), 0);
    return (isTag ? "tag " : "rank ") + std::to_string(value) + " for " + place;
}

/// Into a trash folder and out of it, by hand.
std::string RandomChanges::trash() {
    const std::string bin = joined(area(), ".Trash");
    ::mkdir(absolute(bin).c_str(), 0700);
    const std::string from = anywhere();
    if (from.empty() || from == bin) return "mkdir " + bin;
    const bool isOut = from.find("/.Trash/") != std::string::npos || from.starts_with(".Trash/");
    const std::string to = joined(isOut ? folder() : bin, nameOf(from));
    ::renameat2(AT_FDCWD, absolute(from).c_str(), AT_FDCWD, absolute(to).c_str(), RENAME_NOREPLACE);
    return "rename " + from + " " + to;
}

/// Makes a folder a package, or a package a folder.
std::string RandomChanges::packUp() {
    const std::string from = folder();
    if (std::ranges::find(options_.areas, from) != options_.areas.end()) return "nothing";
    const std::string_view suffix = kPackageSuffix;
    const std::string to =
        from.ends_with(suffix) ? from.substr(0, from.size() - suffix.size()) : from + std::string(suffix);
    ::renameat2(AT_FDCWD, absolute(from).c_str(), AT_FDCWD, absolute(to).c_str(), RENAME_NOREPLACE);
    return "rename " + from + " " + to;
}

/// Some hundred names at once: more than fit one page or batch.
std::string RandomChanges::tree() {
    const std::string place = joined(area(), "tree-" + std::to_string(below(1000)));
    const std::uint64_t folders = 1 + below(4), files = 201 + below(150);
    ::mkdir(absolute(place).c_str(), 0755);
    for (std::uint64_t i = 0; i < folders; ++i) ::mkdir(absolute(joined(place, "f" + std::to_string(i))).c_str(), 0755);
    for (std::uint64_t i = 0; i < files; ++i) {
        const auto in = i % (folders + 1);
        write(
            absolute(joined(in == 0 ? place : joined(place, "f" + std::to_string(in - 1)), std::to_string(i) + ".txt")),
            O_CREAT | O_EXCL, "t");
    }
    return "tree " + place + " of " + std::to_string(folders) + " folders and " + std::to_string(files) + " files";
}

/// As an archiver does: each folder is filled as soon as it is there, piece by piece.
std::string RandomChanges::unpack() {
    const std::string place = joined(area(), "unpacked-" + std::to_string(below(1000)));
    std::string in = place;
    ::mkdir(absolute(in).c_str(), 0755);
    const std::uint64_t pieces = 20 + below(30);
    for (std::uint64_t i = 0; i < pieces; ++i) {
        if (below(4) == 0) {
            in = joined(below(2) == 0 ? place : in, "u" + std::to_string(i));
            ::mkdir(absolute(in).c_str(), 0755);
        } else {
            write(absolute(joined(in, std::to_string(i) + ".txt")), O_CREAT | O_EXCL, "u");
        }
        if (below(2) == 0) ::usleep(static_cast<useconds_t>(below(1000)));
    }
    return "unpack " + place + " with " + std::to_string(pieces) + " pieces";
}

/// Moves what lies at the top of an area to the top of another one, or renames it.
std::string RandomChanges::moveTop() {
    std::vector<std::string> tops;
    for (const std::string& place : all_) {
        if (std::ranges::find(options_.areas, parentOf(place)) != options_.areas.end()) tops.push_back(place);
    }
    if (tops.empty()) return "nothing";
    const std::string from = tops[below(tops.size())];
    const std::string to = joined(area(), below(2) == 0 ? nameOf(from) : "moved-" + std::to_string(below(100)));
    ::renameat2(AT_FDCWD, absolute(from).c_str(), AT_FDCWD, absolute(to).c_str(), RENAME_NOREPLACE);
    return "rename " + from + " " + to;
}

}  // namespace tarnwell::testing
