#include "platform/operations/TreeSurvey.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "platform/base/SystemCall.h"
#include "platform/operations/OperationErrors.h"
#include "platform/operations/TreeWalk.h"

namespace tarnwell::operations {
namespace {

#ifndef __NR_faccessat2
#define __NR_faccessat2 439
#endif

std::uint64_t mixed(std::uint64_t hash, std::uint64_t value) {
    hash ^= value + 0x9E3779B97F4A7C15ULL + (hash << 6) + (hash >> 2);
    hash *= 0xBF58476D1CE4E5B9ULL;
    return hash ^ (hash >> 29);
}

class Surveyor : public TreeVisitor {
public:
    Surveyor(SurveyFor purpose, const TransferMonitor* monitor) : purpose_(purpose), monitor_(monitor) {}

    Result<void> top(int folder, const filesystem::Status& status) {
        parents_.push_back(status.inode);
        found.add(0, {}, status);
        return check(folder, status);
    }
    Result<void> enter(const std::string& name, int folder, const filesystem::Status& status) override {
        found.add(parents_.back(), name, status);
        parents_.push_back(status.inode);
        return check(folder, status);
    }
    Result<void> entry(int, const std::string& name, const filesystem::Status& status) override {
        found.add(parents_.back(), name, status);
        if (purpose_ == SurveyFor::copying) {
            if (refusalToCopy(status.mode, {})) return failure(posixError(EINVAL));
        } else if (status.immutable) {
            return failure(posixError(EPERM));
        }
        return monitor_ != nullptr ? monitor_->check() : Result<void>();
    }
    Result<Leaving> leave(int, const std::string&, int) override {
        parents_.pop_back();
        return Leaving::done;
    }

    TreeSurvey found;

private:
    Result<void> check(int folder, const filesystem::Status& status) const {
        if (purpose_ == SurveyFor::copying) return monitor_ != nullptr ? monitor_->check() : Result<void>();
        if (status.immutable) return failure(posixError(EPERM));
        // An empty folder can be removed without being changed itself.
        const auto entries = filesystem::countEntries(folder, 1);
        if (!entries) return failure(entries.error());
        if (*entries == 0) return {};
        if (::syscall(__NR_faccessat2, folder, "", W_OK | X_OK, AT_EMPTY_PATH | AT_EACCESS) == 0) return {};
        return failedCall();
    }

    const SurveyFor purpose_;
    const TransferMonitor* const monitor_;
    std::vector<std::uint64_t> parents_;
};

}  // namespace

void TreeSurvey::add(std::uint64_t parentInode, const std::string& name, const filesystem::Status& status) {
    ++items;
    if (S_ISREG(status.mode)) bytes += status.size;
    std::uint64_t hash = mixed(0, parentInode);
    for (const char c : name) hash = mixed(hash, static_cast<unsigned char>(c));
    for (const std::uint64_t value :
         {status.device, status.inode, std::uint64_t{status.mode}, static_cast<std::uint64_t>(status.modified),
          static_cast<std::uint64_t>(status.changed), S_ISDIR(status.mode) ? 0 : status.size}) {
        hash = mixed(hash, value);
    }
    // A sum, since a folder's entries may come in another order the next time.
    digest += hash;
    if (!name.empty()) digestBelow += hash;
    newest = std::max(newest, status.changed);
}

Result<TreeSurvey> survey(const Descriptor& top, SurveyFor purpose, const std::string& path,
                          const TransferMonitor* monitor) {
    const std::string cannot = purpose == SurveyFor::removal ? "be removed, and nothing was" : "be copied";
    const auto status = filesystem::statusOf(top.get());
    if (!status) return failure(explained(status.error(), cannot, path));
    Surveyor surveyor(purpose, monitor);
    if (auto done = surveyor.top(top.get(), *status); !done) return failure(explained(done.error(), cannot, path));
    TreeWalk walk(surveyor, purpose == SurveyFor::copying ? kMostCopiedDepth : TreeWalk::kMostDepth);
    if (auto done = walk.run(top); !done) {
        const std::string below = walk.path();
        const std::string where = below.empty() ? path : path + "/" + below;
        if (purpose == SurveyFor::copying && done.error().is(ErrorDomain::posix, EINVAL)) {
            if (auto refusal = refusalToCopy(0, where)) return failure(*refusal);
        }
        if (done.error().is(ErrorDomain::posix, ELOOP) && purpose == SurveyFor::copying) {
            return failure(
                explained(posixError(ELOOP), "be copied, because the folders in it are nested too deep", path));
        }
        return failure(explained(done.error(), cannot, where));
    }
    return surveyor.found;
}

std::optional<Error> refusalToCopy(std::uint32_t mode, const std::string& path) {
    if (S_ISREG(mode) || S_ISDIR(mode) || S_ISLNK(mode)) return std::nullopt;
    return Error{ErrorDomain::posix,
                 EINVAL,
                 {{kErrorMessage, "\"" + path +
                                      "\" cannot be copied: it is no file, folder or link but a pipe, a socket or a "
                                      "device"},
                  {kErrorPath, path}}};
}

}  // namespace tarnwell::operations
