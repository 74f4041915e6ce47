#include "platform/operations/TreeCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <vector>

#include "platform/base/SystemCall.h"
#include "platform/operations/OpenFolder.h"
#include "platform/operations/OperationErrors.h"
#include "platform/operations/TreeSurvey.h"
#include "platform/operations/TreeWalk.h"

namespace tarnwell::operations {
namespace {

class Copier : public TreeVisitor {
public:
    Copier(const Descriptor& target, const filesystem::Status& top, CopiedOwner owner, TransferMonitor* monitor)
        : at_(Descriptor::borrowed(target.get())), top_(top), owner_(owner), monitor_(monitor) {
        way_.push_back(top);
    }

    Result<void> enter(const std::string& name, int, const filesystem::Status& status) override {
        // The copy may lie below what is copied only by a folder that was moved there just now.
        if (isSameObject(status, top_)) return failure(posixError(EINVAL));
        if (untilNotInterrupted([&] { return ::mkdirat(at_.get(), name.c_str(), 0700); }) != 0) return failedCall();
        auto folder = filesystem::openBeneath(at_.get(), name, O_RDONLY | O_DIRECTORY);
        if (!folder) return failure(folder.error());
        const auto made = filesystem::statusOf(folder->get());
        if (!made) return failure(made.error());
        way_.push_back(*made);
        at_ = std::move(*folder);
        return count();
    }

    Result<void> entry(int folder, const std::string& name, const filesystem::Status& status) override {
        if (S_ISLNK(status.mode)) {
            if (auto copied = copyLink(folder, name, at_.get(), name, owner_); !copied) return copied;
            return count();
        }
        if (!S_ISREG(status.mode)) return failure(posixError(EINVAL));
        auto source = filesystem::openBeneath(folder, name, O_RDONLY);
        if (!source) return failure(source.error());
        const auto opened = filesystem::statusOf(source->get());
        if (!opened) return failure(opened.error());
        if (!S_ISREG(opened->mode)) return failure(posixError(EINVAL));
        auto target = filesystem::openBeneath(at_.get(), name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
        if (!target) return failure(target.error());
        if (auto copied = copyFile(source->get(), target->get(), owner_, monitor_); !copied) return copied;
        return count();
    }

    Result<Leaving> leave(int, const std::string&, int folder) override {
        if (auto copied = copyMetadata(folder, at_.get(), owner_); !copied) return failure(copied.error());
        Descriptor parent(untilNotInterrupted(
            [&] { return ::openat(at_.get(), "..", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
        if (!parent.valid()) return failedCall();
        const auto status = filesystem::statusOf(parent.get());
        if (!status) return failure(status.error());
        way_.pop_back();
        if (!isSameObject(*status, way_.back())) return failure(posixError(ESTALE));
        at_ = std::move(parent);
        return Leaving::done;
    }

private:
    Result<void> count() { return monitor_ != nullptr ? monitor_->advance(0, 1) : Result<void>(); }

    Descriptor at_;
    const filesystem::Status top_;
    const CopiedOwner owner_;
    TransferMonitor* const monitor_;
    std::vector<filesystem::Status> way_;  ///< the copies of the folders down to this one
};

}  // namespace

Result<void> copyTree(const Descriptor& source, const Descriptor& target, CopiedOwner owner, TransferMonitor* monitor,
                      const std::string& path) {
    const auto top = filesystem::statusOf(target.get());
    if (!top) return failure(top.error());
    Copier copier(target, *top, owner, monitor);
    TreeWalk walk(copier, kMostCopiedDepth);
    if (auto done = walk.run(source); !done) {
        const std::string below = walk.path();
        Error error = done.error();
        const std::string where = below.empty() ? path : path + "/" + below;
        if (error.is(ErrorDomain::posix, EBUSY) && error.userInfo.contains(kErrorMessage)) {
            error.userInfo[kErrorMessage] = "\"" + where + "\" is being changed";
        }
        return failure(std::move(error));
    }
    return copyMetadata(source.get(), target.get(), owner);
}

Result<void> copyLink(int sourceFolder, const std::string& sourceName, int folder, const std::string& name,
                      CopiedOwner owner) {
    std::array<char, PATH_MAX + 1> text;
    const ssize_t length = untilNotInterrupted(
        [&] { return ::readlinkat(sourceFolder, sourceName.c_str(), text.data(), text.size() - 1); });
    if (length < 0) return failedCall();
    text[static_cast<std::size_t>(length)] = '\0';
    struct stat status{};
    if (::fstatat(sourceFolder, sourceName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return failedCall();
    if (untilNotInterrupted([&] { return ::symlinkat(text.data(), folder, name.c_str()); }) != 0) return failedCall();
    if (owner == CopiedOwner::ofSource) {
        // Whoever may not give it away keeps it.
        [[maybe_unused]] const int given =
            ::fchownat(folder, name.c_str(), status.st_uid, status.st_gid, AT_SYMLINK_NOFOLLOW);
    }
    // A link whose times cannot be set is as good.
    const std::array<struct timespec, 2> times{status.st_atim, status.st_mtim};
    (void)::utimensat(folder, name.c_str(), times.data(), AT_SYMLINK_NOFOLLOW);
    return {};
}

}  // namespace tarnwell::operations
