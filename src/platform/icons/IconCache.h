#pragma once

#include <cstddef>
#include <mutex>
#include <optional>
#include <string>

#include "platform/icons/IconData.h"

namespace tarnwell::icons {

/// Rendered pictures in files of a folder, under a checksum of the icon that they were made of: a changed icon is
/// another one, so no picture is ever out of date. A file that is damaged counts as missing. Several processes may use
/// one folder. Any thread may call any operation.
class IconCache {
public:
    static constexpr std::size_t kDefaultMaxFiles = 1000;

    /// The folder is made by the first picture that is kept; an empty path keeps none.
    explicit IconCache(std::string folder, std::size_t maxFiles = kDefaultMaxFiles)
        : folder_(std::move(folder)), maxFiles_(maxFiles) {}

    /// Names an icon at its size; of 70 characters that every file system takes.
    static std::string keyOf(const IconData& icon);

    /// A sound PNG of that size, else nothing.
    std::optional<Bytes> find(const std::string& key, unsigned pixels) const;
    /// Keeps the picture, whole or not at all; past the limit the oldest quarter goes. A cache that cannot be written
    /// keeps nothing, which is not worth a word: the picture is rendered again.
    void keep(const std::string& key, ByteView png);

private:
    std::string pathOf(const std::string& key) const { return folder_ + "/" + key; }
    void makeRoom() const;

    const std::string folder_;
    const std::size_t maxFiles_;
    std::mutex roomMutex_;
};

}  // namespace tarnwell::icons
