#include "applibraries/LocalAppLibraryCache.h"

#include <limits>

#include "applibraries/AppLibraryCacheFile.h"
#include "platform/filesystem/PlainFile.h"

namespace tarnwell::applibraries {

LocalAppLibraryCache::LocalAppLibraryCache(items::ProgramLog& log, registry::AppRegistry& registry,
                                           std::shared_ptr<dispatch::ThreadPool> pool, const std::string& name,
                                           URL cacheURL)
    : log_(log),
      registry_(registry),
      queue_(dispatch::SerialQueue::create(std::move(pool), "tarnwell.app-library-cache." + name)),
      cacheURL_(std::move(cacheURL)) {}

std::uint64_t LocalAppLibraryCache::versionToken() const {
    queue_->assertCurrent();
    return versionToken_;
}

AppLibraryRecords LocalAppLibraryCache::reset(const char* message) {
    log_.debug(message);
    return {};
}

AppLibraryRecords LocalAppLibraryCache::load() {
    queue_->assertCurrent();
    Result<Bytes> bytes = filesystem::readFile(cacheURL_.path(), kMaxCacheFileBytes);
    if (!bytes) return reset("nothing cached on disk");
    log_.debug([&] { return "read from disk " + std::to_string(bytes->size()) + " bytes at " + cacheURL_.text(); });

    auto list = decodeAppLibraryList(*bytes);
    if (!list) {
        return reset(list.error() == CacheFileDefect::versionToken
                         ? "version token invalid; data on disk is corrupted let's reset"
                         : "bundle proxies invalid; data on disk is corrupted let's reset");
    }
    AppLibraryRecords loaded{list->versionToken, {}};
    loaded.records.reserve(list->records.size());
    for (const registry::ArchivedBundleRecord& archived : list->records) {
        loaded.records.push_back(registry_.recordFromArchive(archived));
        TARNWELL_CHECK(loaded.records.back() != nullptr);
    }
    log_.debug([&] { return "loaded " + std::to_string(loaded.records.size()) + " app library items from data"; });
    if (versionToken_ < loaded.versionToken) {
        versionToken_ = loaded.versionToken;
        log_.debug([&] { return "version token was set to " + std::to_string(versionToken_) + " after load"; });
    }
    return loaded;
}

Result<std::uint64_t> LocalAppLibraryCache::save(const std::vector<registry::BundleRecordPtr>& records,
                                                 std::uint64_t token, TokenIncrement increment) {
    queue_->assertCurrent();
    auto folder = filesystem::createDirectories(cacheURL_.deletingLastPathComponent().path());
    if (!folder) return failure(folder.error());

    if (increment == TokenIncrement::yes) {
        if (versionToken_ == std::numeric_limits<std::uint64_t>::max()) {
            fatal("the version token of " + cacheURL_.text() + " can't grow any further");
        }
        token = versionToken_ + 1;
    }
    AppLibraryList list{token, {}};
    list.records.reserve(records.size());
    for (const registry::BundleRecordPtr& record : records) list.records.push_back(record->archived());
    Bytes bytes = encodeAppLibraryList(list);
    auto written = filesystem::writeFileAtomically(cacheURL_.path(), bytes);
    if (!written) return failure(written.error());

    log_.debug([&] { return "wrote on disk " + std::to_string(bytes.size()) + " bytes at " + cacheURL_.text(); });
    versionToken_ = token;
    return token;
}

}  // namespace tarnwell::applibraries
