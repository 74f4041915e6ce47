#include "platform/operations/CrossDevice.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <vector>

#include "platform/base/SystemCall.h"
#include "platform/operations/Announced.h"
#include "platform/operations/Copying.h"
#include "platform/operations/OperationErrors.h"
#include "platform/operations/Scratch.h"
#include "platform/operations/TreeSurvey.h"
#include "platform/operations/TreeWalk.h"

namespace tarnwell::operations {
namespace {

Result<Descriptor> openAnyhow(int folder, const std::string& name, std::uint32_t mode) {
    return filesystem::openBeneath(folder, name,
                                   S_ISDIR(mode)   ? O_RDONLY | O_DIRECTORY
                                   : S_ISREG(mode) ? O_RDONLY
                                                   : O_PATH | O_NOFOLLOW);
}

/// Goes through source and copy side by side: tells of the pairs, and what the source looks like now.
class Pairs : public TreeVisitor {
public:
    Pairs(Descriptor copy, const filesystem::Status& top, const std::function<void(const CopiedObject&)>& told)
        : at_(std::move(copy)), told_(told) {
        now.add(0, {}, top);
        parents_.push_back(top.inode);
        tell(top, at_);
    }
    Result<void> enter(const std::string& name, int, const filesystem::Status& status) override {
        now.add(parents_.back(), name, status);
        parents_.push_back(status.inode);
        auto copy = filesystem::openBeneath(at_.get(), name, O_RDONLY | O_DIRECTORY);
        if (!copy) return failure(copy.error());
        at_ = std::move(*copy);
        tell(status, at_);
        return {};
    }
    Result<void> entry(int, const std::string& name, const filesystem::Status& status) override {
        now.add(parents_.back(), name, status);
        if (!told_) return {};
        auto copy = openAnyhow(at_.get(), name, status.mode);
        if (!copy) return failure(copy.error());
        tell(status, *copy);
        return {};
    }
    Result<Leaving> leave(int, const std::string&, int) override {
        parents_.pop_back();
        Descriptor parent(untilNotInterrupted(
            [&] { return ::openat(at_.get(), "..", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
        if (!parent.valid()) return failedCall();
        at_ = std::move(parent);
        return Leaving::done;
    }
    TreeSurvey now;

private:
    void tell(const filesystem::Status& source, const Descriptor& copy) const {
        if (told_) told_({source, copy});
    }
    Descriptor at_;
    const std::function<void(const CopiedObject&)>& told_;
    std::vector<std::uint64_t> parents_;
};

Error changedError() { return posixError(EBUSY, "it is being changed; it was not moved"); }

/// The sources stay: what was told of the copies is of them again. What is not found on both sides is passed over by
/// ending early; that is the price of a change in this moment.
void tellBack(const OpenItem& item, const OpenFolder& folder, const Copied& copied, const MoveOptions& options) {
    if (!options.copied) return;
    auto source = openAnyhow(item.folder.get(), item.name, item.status.mode);
    const auto copy = openAnyhow(folder.get(), copied.name, item.status.mode);
    const auto status = copy ? filesystem::statusOf(copy->get()) : Result<filesystem::Status>(failure(copy.error()));
    if (!source || !status || !isSameObject(*status, copied.status)) return;
    if (!S_ISDIR(item.status.mode)) {
        options.copied({*status, *source});
        return;
    }
    Pairs pairs(std::move(*source), *status, options.copied);
    TreeWalk walk(pairs);
    (void)walk.run(*copy);
}

/// What the source is now, if that is still what was copied.
Result<TreeSurvey> comparePairs(const OpenItem& item, const Descriptor& source, const OpenFolder& folder,
                                const Copied& copied, const MoveOptions& options) {
    const bool isFolder = S_ISDIR(item.status.mode);
    auto copy = openAnyhow(folder.get(), copied.name, item.status.mode);
    if (!copy) return failure(copy.error());
    const auto now = filesystem::statusAt(item.folder.get(), item.name.c_str());
    if (!now) return failure(now.error());
    if (!isUnchanged(*now, item.status)) return failure(changedError());
    if (!isFolder) {
        if (options.copied) options.copied({*now, *copy});
        return TreeSurvey();
    }
    Pairs pairs(std::move(*copy), *now, options.copied);
    TreeWalk walk(pairs);
    if (auto done = walk.run(source); !done) return failure(done.error());
    if (pairs.now.digest != copied.digest) return failure(changedError());
    return pairs.now;
}

}  // namespace

Result<std::string> moveByCopying(const Context& context, const OpenItem& item, const OpenFolder& folder,
                                  const std::string& name, const MoveOptions& options) {
    const std::string path = realPath(item.folder.placeOf(item.name));
    if (auto refusal = refusalToCopy(item.status.mode, path)) {
        refusal->userInfo[kErrorMessage] += ", and its new place is on another file system";
        return failure(std::move(*refusal));
    }
    Descriptor object;
    if (!S_ISLNK(item.status.mode)) {
        auto opened = filesystem::openBeneath(item.folder.get(), item.name,
                                              O_RDONLY | (S_ISDIR(item.status.mode) ? O_DIRECTORY : 0));
        if (!opened) return failure(opened.error());
        const auto status = filesystem::statusOf(opened->get());
        if (!status) return failure(status.error());
        if (!isSameObject(*status, item.status)) return failure(changedError());
        object = std::move(*opened);
        if (S_ISDIR(item.status.mode)) {
            // What cannot be taken away here is not worth a copy.
            auto removable = survey(object, SurveyFor::removal, path, options.monitor);
            if (!removable) return failure(removable.error());
        }
    }
    CopyOptions copying;
    copying.owner = CopiedOwner::ofSource;
    copying.taken = options.taken;
    copying.monitor = options.monitor;
    copying.aboutToAppear = options.aboutToAppear;
    const CopySource source{object.valid() ? &object : nullptr, item.folder.get(), item.name, item.status, path};
    const auto copied = copyIntoFolder(context, source, folder, name, copying);
    if (!copied) return failure(copied.error());

    // The copy may be known as what the source was by then.
    Announced announced(context);
    announced.take(item.folder.status, item.name, item.status);
    announced.take(item.folder.status, item.name, copied->status);
    // The copy has to survive a power cut before the source goes.
    auto gone = synchronizeFolder(folder);
    if (gone) {
        const auto found = comparePairs(item, object, folder, *copied, options);
        gone = found ? removeAfterMove(context, item.folder, item.name, item.status, *found) : failure(found.error());
    }
    if (announced.madeIf(std::move(gone))) return copied->name;
    tellBack(item, folder, *copied, options);
    // The copy is no longer wanted, as long as it is still the copy that has the name.
    const auto standing = filesystem::statusAt(folder.get(), copied->name.c_str());
    if (standing && isSameObject(*standing, copied->status)) {
        auto undone = withdrawCopy(context, folder, copied->name, copied->status);
        if (!undone) {
            Error error = explained(gone.error(), "be moved", path, item.folder);
            error.userInfo[kErrorMessage] +=
                "; a copy of it is left at \"" + realPath(folder.placeOf(copied->name)) + "\"";
            return failure(std::move(error));
        }
    }
    return failure(explained(gone.error(), "be moved", path, item.folder));
}

}  // namespace tarnwell::operations
