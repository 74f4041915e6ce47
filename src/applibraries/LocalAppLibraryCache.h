#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "items/ProgramLog.h"
#include "platform/base/Result.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/registry/AppRegistry.h"

namespace tarnwell::applibraries {

/// One generation of the list of app libraries.
struct AppLibraryRecords {
    std::uint64_t versionToken = 0;
    std::vector<registry::BundleRecordPtr> records;  ///< none is null
};

/// Whether a save begins a new generation or writes down one that stands already.
enum class TokenIncrement { no, yes };

/// One cache file, with the last version token that was read from or written to it in this process. A file that is
/// missing, damaged or larger than kMaxCacheFileBytes reads as nothing cached, and stands until the next save.
///
/// Every operation but the plain accessors runs on `queue` (callers use `sync`) and stops the process elsewhere. Work
/// on the queue waits for no queue of a manager.
class LocalAppLibraryCache {
public:
    /// `name` is the suffix of the queue's label. The log and the registry must outlive the cache. Touches no file.
    LocalAppLibraryCache(items::ProgramLog& log, registry::AppRegistry& registry,
                         std::shared_ptr<dispatch::ThreadPool> pool, const std::string& name, URL cacheURL);

    dispatch::SerialQueue& queue() const { return *queue_; }
    const URL& cacheURL() const { return cacheURL_; }

    /// As held in memory, 0 before the first load or save; does not read the file.
    std::uint64_t versionToken() const;

    /// The file's content; token 0 and no records when there is none that can be read. A token in the file above the
    /// one in memory raises that, a lower one leaves it.
    AppLibraryRecords load();

    /// Replaces the file, making its folder where it is missing, and returns the token written: the one in memory plus
    /// one with an increment (growing past the largest number stops the process), else `token`, which may be lower than
    /// the one in memory. On failure file and memory are as before.
    Result<std::uint64_t> save(const std::vector<registry::BundleRecordPtr>& records, std::uint64_t token,
                               TokenIncrement increment);

private:
    AppLibraryRecords reset(const char* message);

    items::ProgramLog& log_;
    registry::AppRegistry& registry_;
    std::shared_ptr<dispatch::SerialQueue> queue_;
    URL cacheURL_;
    std::uint64_t versionToken_ = 0;
};

}  // namespace tarnwell::applibraries
