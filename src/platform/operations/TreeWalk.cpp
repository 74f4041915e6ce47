#include "platform/operations/TreeWalk.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/base/SystemCall.h"
#include "platform/operations/OpenFolder.h"

namespace tarnwell::operations {

Result<void> TreeWalk::run(const Descriptor& top) {
    const auto status = filesystem::statusOf(top.get());
    if (!status) return failure(status.error());
    levels_.clear();
    levels_.push_back({{}, *status, {}});
    at_ = Descriptor::borrowed(top.get());
    for (auto done = read();;) {
        if (!done) return done;
        if (!levels_.back().folders.empty()) {
            done = enter();
        } else if (levels_.size() > 1) {
            done = leave();
        } else {
            return {};
        }
    }
}

Result<void> TreeWalk::read() {
    entry_.clear();
    filesystem::DirectoryReader reader(at_.get());
    filesystem::DirectoryEntry entry;
    for (;;) {
        const auto more = reader.next(entry);
        if (!more) return failure(more.error());
        if (!*more) break;
        entry_ = entry.name;
        const auto status = filesystem::statusAt(at_.get(), entry_.c_str());
        if (!status) {
            if (status.error().is(ErrorDomain::posix, ENOENT)) continue;
            return failure(status.error());
        }
        if (status->mount != levels_.front().status.mount) return failure(posixError(EBUSY));
        if (S_ISDIR(status->mode)) {
            levels_.back().folders.push_back(entry_);
        } else if (auto done = visitor_.entry(at_.get(), entry_, *status); !done) {
            return done;
        }
    }
    entry_.clear();
    return {};
}

Result<void> TreeWalk::enter() {
    if (levels_.size() > mostDepth_) return failure(posixError(ELOOP));
    entry_ = std::move(levels_.back().folders.back());
    levels_.back().folders.pop_back();
    auto folder = filesystem::openBeneath(at_.get(), entry_, O_RDONLY | O_DIRECTORY);
    if (!folder) {
        if (folder.error().is(ErrorDomain::posix, ENOENT)) return {};
        return failure(folder.error());
    }
    const auto status = filesystem::statusOf(folder->get());
    if (!status) return failure(status.error());
    if (status->mount != levels_.front().status.mount) return failure(posixError(EBUSY));
    if (auto done = visitor_.enter(entry_, folder->get(), *status); !done) return done;
    levels_.push_back({std::move(entry_), *status, {}});
    at_ = std::move(*folder);
    return read();
}

Result<void> TreeWalk::leave() {
    entry_.clear();
    Descriptor parent(untilNotInterrupted(
        [&] { return ::openat(at_.get(), "..", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
    if (!parent.valid()) return failedCall();
    const auto status = filesystem::statusOf(parent.get());
    if (!status) return failure(status.error());
    if (!isSameObject(*status, levels_[levels_.size() - 2].status)) return failure(posixError(ESTALE));
    const auto leaving = visitor_.leave(parent.get(), levels_.back().name, at_.get());
    if (!leaving) return failure(leaving.error());
    if (*leaving == TreeVisitor::Leaving::again) return read();
    levels_.pop_back();
    at_ = std::move(parent);
    return {};
}

std::string TreeWalk::path() const {
    constexpr std::size_t kShown = 4000;
    std::string path;
    for (std::size_t i = 1; i < levels_.size() && path.size() < kShown; ++i) {
        if (!path.empty()) path += '/';
        path += levels_[i].name;
    }
    if (!entry_.empty()) path += (path.empty() ? "" : "/") + entry_;
    return path;
}

}  // namespace tarnwell::operations
