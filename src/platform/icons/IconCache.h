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
    /// What is kept at most; several processes that keep a picture at once may go past it by one each.
    struct Limits {
        std::size_t files = 1000;
        std::size_t bytes = 64u << 20;
        /// Of one icon: who asks for it in every size leaves the pictures of the others alone.
        std::size_t sizesOfAnIcon = 8;
    };

    /// The folder is made by the first picture that is kept; an empty path keeps none.
    IconCache(std::string folder, Limits limits) : folder_(std::move(folder)), limits_(limits) {}

    /// Names an icon at its size; of 70 characters that every file system takes.
    static std::string keyOf(const IconData& icon);

    /// A sound PNG of that size, else nothing.
    std::optional<Bytes> find(const std::string& key, unsigned pixels) const;
    /// Keeps the picture, whole or not at all. Past the limit of an icon its oldest picture goes, past another limit
    /// the oldest quarter of all. A cache that cannot be written keeps nothing, which is not worth a word: the picture
    /// is rendered again.
    void keep(const std::string& key, ByteView png);

private:
    std::string pathOf(const std::string& key) const { return folder_ + "/" + key; }
    void makeRoom(const std::string& key, std::size_t bytes) const;

    const std::string folder_;
    const Limits limits_;
    std::mutex roomMutex_;
};

}  // namespace tarnwell::icons
