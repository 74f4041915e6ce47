#include "platform/icons/IconCache.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/filesystem/PlainFile.h"
#include "platform/icons/PngCheck.h"

namespace tarnwell::icons {
namespace {

/// Another number whenever the same icon would be drawn differently.
constexpr std::string_view kDrawing = "tarnwell-icon-1";
constexpr std::size_t kChecksumCharacters = 64;

struct ChecksumCloser {
    void operator()(GChecksum* checksum) const { g_checksum_free(checksum); }
};
struct FolderCloser {
    void operator()(DIR* folder) const { closedir(folder); }
};

/// True for files of ours, temporaries that a killed process left among them: nothing else is ever removed.
bool isOurs(std::string_view name) {
    return name.size() > kChecksumCharacters && name[kChecksumCharacters] == '-' &&
           std::ranges::all_of(name.substr(0, kChecksumCharacters),
                               [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

struct KeptFile {
    std::string name;
    timespec modified{};
    std::size_t bytes = 0;
};

bool isOlder(const KeptFile& a, const KeptFile& b) {
    if (a.modified.tv_sec != b.modified.tv_sec) return a.modified.tv_sec < b.modified.tv_sec;
    return a.modified.tv_nsec < b.modified.tv_nsec;
}

}  // namespace

std::string IconCache::keyOf(const IconData& icon) {
    const std::unique_ptr<GChecksum, ChecksumCloser> checksum(g_checksum_new(G_CHECKSUM_SHA256));
    const std::string_view format = icon.format == IconFormat::png ? "png" : "svg";
    g_checksum_update(checksum.get(), reinterpret_cast<const guchar*>(kDrawing.data()), std::ssize(kDrawing));
    g_checksum_update(checksum.get(), reinterpret_cast<const guchar*>(format.data()), std::ssize(format));
    g_checksum_update(checksum.get(), icon.bytes.data(), std::ssize(icon.bytes));
    return std::string(g_checksum_get_string(checksum.get())) + "-" + std::to_string(icon.pixels);
}

std::optional<Bytes> IconCache::find(const std::string& key, unsigned pixels) const {
    if (folder_.empty()) return std::nullopt;
    auto bytes = filesystem::readFile(pathOf(key), maxPngBytes(pixels));
    if (!bytes || !isSoundPng(*bytes, pixels)) return std::nullopt;
    return std::move(*bytes);
}

void IconCache::keep(const std::string& key, ByteView png) {
    if (folder_.empty() || !filesystem::createDirectories(folder_)) return;
    const std::lock_guard lock(roomMutex_);
    makeRoom(key, png.size());
    (void)filesystem::writeFileAtomically(pathOf(key), png, filesystem::Durability::none);
}

void IconCache::makeRoom(const std::string& key, std::size_t bytes) const {
    const std::unique_ptr<DIR, FolderCloser> folder(opendir(folder_.c_str()));
    if (!folder) return;
    const int directory = dirfd(folder.get());
    std::vector<KeptFile> files;
    std::size_t allBytes = bytes;
    while (const dirent* entry = readdir(folder.get())) {
        // What it takes the place of needs no room.
        if (!isOurs(entry->d_name) || key == entry->d_name) continue;
        struct stat status{};
        if (fstatat(directory, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
        files.push_back({entry->d_name, status.st_mtim, static_cast<std::size_t>(status.st_size)});
        allBytes += files.back().bytes;
    }
    std::ranges::sort(files, isOlder);
    const auto isOfThisIcon = [&](const KeptFile& file) {
        return file.name.starts_with(std::string_view(key).substr(0, kChecksumCharacters));
    };
    const auto remove = [&](const KeptFile& file) {
        unlinkat(directory, file.name.c_str(), 0);
        allBytes -= file.bytes;
    };
    auto sizes = static_cast<std::size_t>(std::ranges::count_if(files, isOfThisIcon));
    std::erase_if(files, [&](const KeptFile& file) {
        if (sizes < limits_.sizesOfAnIcon || !isOfThisIcon(file)) return false;
        --sizes;
        remove(file);
        return true;
    });
    if (files.size() < limits_.files && allBytes <= limits_.bytes) return;
    const std::size_t keptFiles = limits_.files - std::max<std::size_t>(limits_.files / 4, 1);
    const std::size_t keptBytes = limits_.bytes - limits_.bytes / 4;
    for (std::size_t i = 0; i < files.size() && (files.size() - i > keptFiles || allBytes > keptBytes); ++i) {
        remove(files[i]);
    }
}

}  // namespace tarnwell::icons
