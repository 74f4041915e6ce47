#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

struct sqlite3_vfs;

namespace tarnwell::store {

/// What a database writes while one of these lives, in order, and what a disk may hold of it when the power fails at
/// any moment: all that was written before a file's last synchronization, and of what came after that any part, sector
/// by sector. One at a time; databases that were opened meanwhile have to be closed before it goes.
class RecordingDisk {
public:
    RecordingDisk();
    ~RecordingDisk();
    RecordingDisk(const RecordingDisk&) = delete;
    RecordingDisk& operator=(const RecordingDisk&) = delete;

    /// How many steps were recorded so far. Any thread.
    std::size_t steps() const;
    /// The files as they may be found when the power failed after the first `steps`: contents by path.
    std::map<std::string, std::string> afterPowerCut(std::size_t steps, std::mt19937_64& random) const;

    struct Step {
        enum class Kind { write, truncate, sync, remove } kind;
        std::string path;
        std::uint64_t offset = 0;  ///< or the new size
        std::string bytes;
    };
    void record(Step step);

private:
    mutable std::mutex mutex_;
    std::vector<Step> steps_;
    std::unique_ptr<sqlite3_vfs> vfs_;
};

}  // namespace tarnwell::store
