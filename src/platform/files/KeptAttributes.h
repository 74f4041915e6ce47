#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/filesystem/Beneath.h"
#include "platform/filesystem/Roots.h"
#include "platform/log/Log.h"
#include "platform/store/Index.h"
#include "platform/store/KeptTable.h"

namespace tarnwell::files {

/// The extended attributes that belong to a document rather than to one file: read where a document changed, and put
/// back where a program saved it as a new file without them. Never changes; any thread may call it.
class KeptAttributes {
public:
    /// More than this is not kept of one document, in bytes of values; as much as file systems with the least room for
    /// attributes have.
    static constexpr std::size_t kMostBytes = 3584;

    /// `names` without "user.", the most important first. Keeps nothing without names. The log, if any, outlives it.
    explicit KeptAttributes(std::vector<std::string> names = {}, log::Log* log = nullptr)
        : names_(std::move(names)), log_(log) {}

    bool isEmpty() const { return names_.empty(); }

    struct Found {
        std::vector<store::KeptAttribute> kept;
        bool bare = false;  ///< it has no extended attributes at all, and no access list
    };
    /// What a direct entry of the folder carries of them, as far as there is room; nothing where that cannot be told,
    /// or where another object stands there.
    std::optional<Found> readAt(int folder, const char* entry, const store::ObjectIdentity& identity) const;
    /// The same for an open object.
    std::optional<std::vector<store::KeptAttribute>> readOf(int descriptor) const;

    /// Gives the object at the place those of the attributes that it does not have, and returns what it carries then;
    /// nothing where another object stands there. What cannot be given is logged and left out.
    std::optional<std::vector<store::KeptAttribute>> putBack(const Place& place, const store::ObjectIdentity& identity,
                                                             const std::vector<store::KeptAttribute>& kept) const;

private:
    template <typename Read>
    std::optional<std::vector<store::KeptAttribute>> choose(const filesystem::AttributeNames& present,
                                                            const Read& read) const;

    std::vector<std::string> names_;
    log::Log* log_;
};

}  // namespace tarnwell::files
