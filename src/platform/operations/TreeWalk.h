#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/base/Descriptor.h"
#include "platform/base/Result.h"
#include "platform/filesystem/Beneath.h"

namespace tarnwell::operations {

/// What happens at each object of a tree. An error ends the walk; one without a sentence is given one by the walk's
/// caller.
class TreeVisitor {
public:
    virtual ~TreeVisitor() = default;
    /// A folder below the top, opened for reading, before what it holds.
    virtual Result<void> enter(const std::string& name, int folder, const filesystem::Status& status) = 0;
    /// Anything but a folder.
    virtual Result<void> entry(int folder, const std::string& name, const filesystem::Status& status) = 0;
    /// A folder below the top, after what it holds. `again` reads it once more.
    enum class Leaving { done, again };
    virtual Result<Leaving> leave(int parent, const std::string& name, int folder) = 0;
};

/// Walks the tree below an open folder. Nothing is on the program's stack and one folder is open at a time, so that any
/// depth will do: memory grows by the names on the way. Within a folder everything else comes before its folders. No
/// link is followed and no mount point entered: that is EBUSY. A folder that is moved away while the walk is inside
/// ends it with ESTALE.
class TreeWalk {
public:
    static constexpr std::size_t kMostDepth = 1'000'000;

    explicit TreeWalk(TreeVisitor& visitor, std::size_t mostDepth = kMostDepth)
        : visitor_(visitor), mostDepth_(mostDepth) {}
    /// `top` is open for reading.
    Result<void> run(const Descriptor& top);
    /// Where the walk was when it failed, relative to the top.
    std::string path() const;

private:
    struct Level {
        std::string name;
        filesystem::Status status;
        std::vector<std::string> folders;  ///< still to be entered
    };
    Result<void> read();
    Result<void> enter();
    Result<void> leave();

    TreeVisitor& visitor_;
    const std::size_t mostDepth_;
    std::vector<Level> levels_;
    Descriptor at_;
    std::string entry_;  ///< that is being looked at, "" for the folder itself
};

}  // namespace tarnwell::operations
