#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "testing/DiskModel.h"
#include "tests/deep/DeepDevice.h"

namespace tarnwell::deep {

using testing::Disk;
using testing::DiskObject;
using testing::ObjectKey;
using testing::readDisk;

/// What a client keeps of one item.
struct Kept {
    std::string parent;
    std::string name;
    std::string type;
    std::optional<std::uint64_t> size;
    std::optional<std::int64_t> modified;
    std::optional<std::uint16_t> children;
    friend bool operator==(const Kept&, const Kept&) = default;
};
Kept keptOf(const hostframework::ProviderItem& item);

/// All items below the storage root, those of its .Trash too, by their identifier and by their path.
struct Listing {
    std::map<std::string, Kept> items;
    std::map<std::string, std::string> identifiers;  ///< by path
    std::map<std::string, std::string> paths;        ///< by identifier
    std::optional<std::string> trash;                ///< the identifier of a .Trash, which no listing shows
    /// Identifiers of objects with several names of which no listing shows one: those are at that place, or not.
    std::set<std::string> halfHidden;
    std::vector<std::string> problems;  ///< an identifier or a path that came twice, a refused listing
};
/// The disk is what is there now. Nothing is looked at any more when it returns.
Listing listEverything(DeepDevice& device, const Disk& disk);

/// Each sentence says one thing that is wrong; none when all is well.
using Problems = std::vector<std::string>;

/// Names, parents, sizes, dates and counts of the listing against the disk. An object with several names is one item,
/// at one of its visible names; where a hidden name is among them it may be at that one, out of sight.
Problems compareWithDisk(const Listing& listing, const Disk& disk);

/// Whether the program looked at anything between two checks: what it saw then, the checks never did.
enum class Looks { none, inBetween };

/// Follows identifiers through many listings: a number of a folder, link or pipe names one object for ever, one of a
/// document from one listing to the next another object only under the same name in the same folder, if nobody looked
/// in between.
class IdentityLedger {
public:
    Problems check(const Listing& listing, const Disk& disk, Looks looks = Looks::none);

private:
    struct Bearer {
        ObjectKey key;
        ObjectKey parent;
        std::string name;
    };
    std::map<std::string, Bearer> bearers_;
};

/// A client that lists once and then only applies what it is told.
class Mirror {
public:
    void reset(const Listing& listing) { items_ = listing.items; }
    void apply(const std::vector<ToldChange>& changes);
    /// Against a new listing. What no listing shows, the .Trash itself, is left out.
    Problems compare(const Listing& listing) const;

private:
    std::map<std::string, Kept> items_;
};

/// What the history must hold: every visible object that came or differs, under its path; every identifier that is
/// listed no more; nothing twice, no deletion of what is listed, and, if nobody looked in between, no change of what is
/// as it was.
Problems compareHistory(const std::vector<ToldChange>& changes, const Listing& before, const Listing& after,
                        const Disk& diskBefore, const Disk& diskAfter, Looks looks = Looks::none);

}  // namespace tarnwell::deep
