#pragma once

#include <cstdint>
#include <expected>
#include <vector>

#include "platform/base/Ids.h"
#include "platform/registry/AppRegistry.h"

/// The bytes of an app library cache file: a keyed archive of a dictionary with the two entries "versionToken" (an
/// unsigned 64-bit number) and "bundleProxy" (an array of application records, in registry order).
namespace tarnwell::applibraries {

/// One generation of the list, as a file keeps it.
struct AppLibraryList {
    std::uint64_t versionToken = 0;
    std::vector<registry::ArchivedBundleRecord> records;
    friend bool operator==(const AppLibraryList&, const AppLibraryList&) = default;
};

/// Why bytes hold no list. Bytes that are no archive of a dictionary count as a defect of the version token.
enum class CacheFileDefect { versionToken, bundleProxies };

/// No cache file larger than this is read.
inline constexpr std::size_t kMaxCacheFileBytes = 16u << 20;

Bytes encodeAppLibraryList(const AppLibraryList& list);

/// Never fails otherwise than by a defect, whatever the bytes are. Further entries of the dictionary are passed over;
/// the last of two entries with the same key counts.
std::expected<AppLibraryList, CacheFileDefect> decodeAppLibraryList(ByteView bytes);

}  // namespace tarnwell::applibraries
