#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "testing/DiskModel.h"
#include "tests/mirror/HostedDevice.h"
#include "tests/mirror/Mirror.h"

namespace tarnwell::mirror {

/// What stands on the disk at a name, as a client ought to know it.
struct Standing {
    testing::DiskObject object;
    std::string identifier;  ///< looked up afresh; "" for what has none, and for what is hidden
    Kept kept;
};

/// All names below the roots, by their paths below the home.
using Truth = std::map<std::string, Standing>;

/// The names and what the disk says of them, without identifiers.
Truth readNames(const HostedDevice& device);

/// Reads the disk and looks the identifiers up, again until nothing moved between: the first look may give a new
/// version of a document the attributes of the old one. Nothing if that never ends.
std::optional<Truth> readTruth(HostedDevice& device);

/// Where the visible folder of that identifier is, below the home; nothing where there is none.
std::optional<std::string> folderOf(const Truth& truth, const std::string& identifier);

/// Where that visible folder is, below the home; nothing where it is not.
std::optional<std::string> placeOf(const Truth& truth, const testing::ObjectKey& folder);

/// Each sentence says one thing that is wrong.
using Problems = std::vector<std::string>;

/// A client's mirror against the disk: of all roots, or of what lies in one folder. A file with several names is one
/// item, at one of the visible ones; where another name is out of the client's sight, it may be at that one.
Problems compare(const Mirror& mirror, const Truth& truth, const std::optional<std::string>& folder = std::nullopt);

}  // namespace tarnwell::mirror
