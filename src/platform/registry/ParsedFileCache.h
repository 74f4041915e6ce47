#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/base/Result.h"

namespace tarnwell::registry {

inline constexpr std::size_t kMaxParsedFileBytes = 1u << 20;
inline constexpr std::size_t kMaxCachedFiles = 16'384;

/// Which state of which file was parsed.
struct FileStamp {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;
    std::int64_t modified = 0;  ///< nanoseconds since 1970
    std::int64_t changed = 0;   ///< nanoseconds since 1970
    friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

/// The stamp of the regular file of at most kMaxParsedFileBytes that a path leads to, links followed. EINVAL for
/// anything else, which is not opened; EFBIG for a larger one.
Result<FileStamp> stampOf(const std::string& path);

/// Whether a file of that stamp, looked at now, can no longer change without getting another stamp. Clocks of file
/// systems tick in milliseconds or slower, so one that changed just now may change again within the tick.
bool isSettled(const FileStamp& stamp);

/// The same two for a folder, by which its entries are told to be the same. On local file systems that stamp with the
/// kernel's clock a folder is settled after some of its ticks; `descriptor` is the open folder.
Result<FileStamp> stampOfFolder(const std::string& path);
bool isSettledFolder(const FileStamp& stamp, int descriptor);

/// The file's bytes; EFBIG past kMaxParsedFileBytes. Never blocks.
Result<std::string> readParsedFile(const std::string& path);

/// Parsed files by path, read again when the file changed. Any thread may call it; `parse` runs without a lock.
template <typename T>
class ParsedFileCache {
public:
    using Parse = std::function<Result<T>(std::string_view content)>;

    /// What the file at `path` holds; the error of reading or of parsing it. A parsed value stays valid for as long as
    /// it is held.
    Result<std::shared_ptr<const T>> load(const std::string& path, const Parse& parse) {
        const auto stamp = stampOf(path);
        if (!stamp) {
            forget(path);
            return failure(stamp.error());
        }
        if (auto known = find(path, *stamp)) return known;
        const bool settled = isSettled(*stamp);
        const auto content = readParsedFile(path);
        if (!content) return failure(content.error());
        auto parsed = parse(*content);
        if (!parsed) return failure(parsed.error());
        auto value = std::make_shared<const T>(std::move(*parsed));
        if (settled) remember(path, *stamp, value);
        return value;
    }

private:
    struct Entry {
        FileStamp stamp;
        std::shared_ptr<const T> value;
    };

    std::shared_ptr<const T> find(const std::string& path, const FileStamp& stamp) {
        std::lock_guard lock(mutex_);
        const auto found = entries_.find(path);
        return found != entries_.end() && found->second.stamp == stamp ? found->second.value : nullptr;
    }
    void remember(const std::string& path, const FileStamp& stamp, std::shared_ptr<const T> value) {
        std::lock_guard lock(mutex_);
        if (entries_.size() >= kMaxCachedFiles) entries_.clear();
        entries_.insert_or_assign(path, Entry{stamp, std::move(value)});
    }
    void forget(const std::string& path) {
        std::lock_guard lock(mutex_);
        entries_.erase(path);
    }

    std::mutex mutex_;
    std::unordered_map<std::string, Entry> entries_;
};

}  // namespace tarnwell::registry
