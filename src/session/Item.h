#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Ids.h"

namespace tarnwell::session {

/// Names an item between a client and the host. UTF-8 without control characters.
using ItemIdentifier = std::string;

/// Those that the host defines. The views, WorkingSetContainer and AllDirectoriesContainer, have contents only.
inline const ItemIdentifier kRootContainer = "RootContainer";
inline const ItemIdentifier kWorkingSetContainer = "WorkingSetContainer";
inline const ItemIdentifier kAllDirectoriesContainer = "AllDirectoriesContainer";
inline const ItemIdentifier kTemporaryLocalFolder = "TemporaryLocalFolder";

/// The bits of Item::capabilities.
enum Capability : std::uint64_t {
    kMayRead = 0x1,
    kMayWrite = 0x2,  ///< of a folder: something may be put into it
    kMayMove = 0x4,
    kMayRename = 0x8,
    kMayTrash = 0x10,
    kMayDelete = 0x20,
};

/// What a client is told of an item: a copy of what was true at one moment.
struct Item {
    ItemIdentifier identifier;
    ItemIdentifier parent;
    std::string filename;        ///< bytes, which need not be UTF-8
    std::string typeIdentifier;  ///< such as "text/plain" or "inode/directory"
    std::optional<std::uint64_t> documentSize;
    std::optional<Date> creationDate;
    std::optional<Date> contentModificationDate;
    std::optional<std::uint16_t> childItemCount;
    std::uint64_t capabilities = 0;
    bool isTrashed = false;
    std::optional<Date> lastUsedDate;
    /// The labels in their order; nothing where there are none or they cannot be read.
    std::optional<std::vector<std::string>> tags;
    std::optional<std::uint64_t> favoriteRank;
    std::optional<std::uint64_t> fileID;
    std::optional<std::int64_t> docID;
    std::string path;  ///< the real one, absolute; bytes
    std::optional<std::string> searchDomainIdentifier;
    std::optional<std::string> appContainerBundleIdentifier;
    bool isFolder = false;
    bool isContainer = false;  ///< an app library
    bool isUbiquitous = false;

    friend bool operator==(const Item&, const Item&) = default;
};

}  // namespace tarnwell::session
