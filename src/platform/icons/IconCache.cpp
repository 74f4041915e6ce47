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
    makeRoom();
    (void)filesystem::writeFileAtomically(pathOf(key), png, filesystem::Durability::none);
}

void IconCache::makeRoom() const {
    const std::unique_ptr<DIR, FolderCloser> folder(opendir(folder_.c_str()));
    if (!folder) return;
    std::vector<KeptFile> files;
    while (const dirent* entry = readdir(folder.get())) {
        if (isOurs(entry->d_name)) files.push_back({entry->d_name, {}});
    }
    if (files.size() < maxFiles_) return;
    for (KeptFile& file : files) {
        struct stat status{};
        if (fstatat(dirfd(folder.get()), file.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
            file.modified = status.st_mtim;
        }
    }
    const std::size_t kept = maxFiles_ - std::max<std::size_t>(maxFiles_ / 4, 1);
    const std::size_t leaving = files.size() - kept;
    std::ranges::partial_sort(files, files.begin() + static_cast<std::ptrdiff_t>(leaving), isOlder);
    for (std::size_t i = 0; i < leaving; ++i) unlinkat(dirfd(folder.get()), files[i].name.c_str(), 0);
}

}  // namespace tarnwell::icons
