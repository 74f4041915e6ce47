#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/operations/OpenFolder.h"
#include "platform/operations/TransferMonitor.h"

namespace tarnwell::operations {

/// What a look at a whole tree, its top included, tells.
struct TreeSurvey {
    std::uint64_t items = 0;
    std::uint64_t bytes = 0;
    /// Two looks give the same where nothing was added, removed, renamed or written between them (as far as change
    /// times tell).
    std::uint64_t digest = 0;
    /// The same without the top, whose change time moves when it is given another name.
    std::uint64_t digestBelow = 0;
    /// The latest change time of all of them.
    std::int64_t newest = 0;
    /// Adds one object; the top comes with the inode 0 and no name.
    void add(std::uint64_t parentInode, const std::string& name, const filesystem::Status& status);
};

/// For what the tree is looked at. For removal, what would refuse it is an error: a mount point, a folder that cannot
/// be opened or changed, something immutable. For copying, what is neither file, folder nor link is, and a depth of
/// more than kMostCopiedDepth.
enum class SurveyFor { copying, removal };
inline constexpr std::size_t kMostCopiedDepth = 2000;

/// `path` is the top's for sentences.
Result<TreeSurvey> survey(const Descriptor& top, SurveyFor purpose, const std::string& path,
                          const TransferMonitor* monitor = nullptr);

/// The refusal to copy an object of that mode; nothing for a file, folder or link.
std::optional<Error> refusalToCopy(std::uint32_t mode, const std::string& path);

}  // namespace tarnwell::operations
