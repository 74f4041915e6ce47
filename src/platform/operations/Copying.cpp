#include "platform/operations/Copying.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/base/SystemCall.h"
#include "platform/operations/Announced.h"
#include "platform/operations/NoReplace.h"
#include "platform/operations/OperationErrors.h"
#include "platform/operations/Removal.h"
#include "platform/operations/Scratch.h"
#include "platform/operations/TreeCopy.h"
#include "platform/operations/TreeSurvey.h"

namespace tarnwell::operations {
namespace {

Result<void> synchronize(int file) {
    if (untilNotInterrupted([&] { return ::fsync(file); }) != 0) return failedCall();
    return {};
}

/// One copy: made aside, then put under its name.
class Copy {
public:
    Copy(const Context& context, const CopySource& source, const OpenFolder& folder, const std::string& name,
         const CopyOptions& options)
        : context_(context), source_(source), folder_(folder), name_(name), options_(options) {}

    Result<Copied> run() {
        if (options_.monitor != nullptr) {
            if (auto asked = options_.monitor->check(); !asked) return failure(asked.error());
        }
        if (S_ISREG(source_.status.mode)) return file();
        if (S_ISDIR(source_.status.mode)) return tree();
        return hidden([&](const std::string& scratch) {
            return copyLink(source_.folder, source_.name, folder_.get(), scratch, options_.owner);
        });
    }

private:
    Result<Copied> file() {
        if (options_.monitor != nullptr) options_.monitor->setTotals(source_.status.size, 1);
        auto nameless = filesystem::openBeneath(folder_.get(), {}, O_TMPFILE | O_RDWR, 0600);
        if (!nameless) {
            const std::int64_t code = nameless.error().code;
            // What file systems answer that have no files without a name.
            if (code != EOPNOTSUPP && code != EISDIR && code != EINVAL && code != ENOENT) {
                return failure(nameless.error());
            }
            return hidden([&](const std::string& scratch) -> Result<void> {
                auto named =
                    filesystem::openBeneath(folder_.get(), scratch, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
                if (!named) return failure(named.error());
                if (auto known = remember(*named); !known) return known;
                return fill(*named);
            });
        }
        if (auto filled = fill(*nameless); !filled) return failure(filled.error());
        const auto status = filesystem::statusOf(nameless->get());
        if (!status) return failure(status.error());
        const std::string itself = pathOfDescriptor(nameless->get());
        return appear(*status, [&](const std::string& name) -> Result<void> {
            if (untilNotInterrupted([&] {
                    return ::linkat(AT_FDCWD, itself.c_str(), folder_.get(), name.c_str(), AT_SYMLINK_FOLLOW);
                }) != 0) {
                return failedCall();
            }
            return {};
        });
    }

    Result<void> fill(const Descriptor& target) {
        if (auto copied = copyFile(source_.object->get(), target.get(), options_.owner, options_.monitor); !copied) {
            return copied;
        }
        if (options_.monitor != nullptr) {
            if (auto counted = options_.monitor->advance(0, 1); !counted) return counted;
        }
        return synchronize(target.get());
    }

    Result<Copied> tree() {
        const auto before = survey(*source_.object, SurveyFor::copying, source_.path, options_.monitor);
        if (!before) return failure(before.error());
        digest_ = before->digest;
        if (options_.monitor != nullptr) options_.monitor->setTotals(before->bytes, before->items);
        return hidden([&](const std::string& scratch) -> Result<void> {
            if (untilNotInterrupted([&] { return ::mkdirat(folder_.get(), scratch.c_str(), 0700); }) != 0) {
                return failedCall();
            }
            auto target = filesystem::openBeneath(folder_.get(), scratch, O_RDONLY | O_DIRECTORY);
            if (!target) return failure(target.error());
            // Somebody may have put another folder there already.
            const auto entries = filesystem::countEntries(target->get(), 1);
            if (!entries) return failure(entries.error());
            if (*entries != 0) return failure(posixError(ESTALE));
            if (auto known = remember(*target); !known) return known;
            if (auto copied = copyTree(*source_.object, *target, options_.owner, options_.monitor, source_.path);
                !copied) {
                return copied;
            }
            if (options_.monitor != nullptr) {
                if (auto counted = options_.monitor->advance(0, 1); !counted) return counted;
            }
            // One call for all the files in it.
            if (untilNotInterrupted([&] { return ::syncfs(target->get()); }) != 0) return failedCall();
            const auto after = survey(*source_.object, SurveyFor::copying, source_.path, options_.monitor);
            if (!after) return failure(after.error());
            if (after->digest != digest_) return failure(posixError(EBUSY, "it is being changed"));
            return {};
        });
    }

    /// For what needs a name while it is made.
    Result<Copied> hidden(const std::function<Result<void>(const std::string&)>& make) {
        auto scratch = Scratch::reserve(context_.store, folder_, store::TemporaryKind::copy);
        if (!scratch) return failure(scratch.error());
        const auto undone = [&](const Error& error) {
            if (withdraw(scratch->name())) scratch->forget();
            return failure(error);
        };
        if (auto made = make(scratch->name()); !made) return undone(made.error());
        const auto status = filesystem::statusAt(folder_.get(), scratch->name().c_str());
        if (!status) return undone(status.error());
        if (made_ && !isSameObject(*status, *made_)) return undone(posixError(ESTALE));
        auto appeared = appear(*status, [&](const std::string& name) {
            return renameWithoutReplacing(folder_.get(), scratch->name(), folder_.get(), name, S_ISDIR(status->mode));
        });
        if (!appeared) return undone(appeared.error());
        scratch->forget();
        return appeared;
    }

    Result<void> remember(const Descriptor& made) {
        const auto status = filesystem::statusOf(made.get());
        if (!status) return failure(status.error());
        made_ = *status;
        return {};
    }

    /// Removes what was made so far. What somebody else put under the hidden name stays.
    Result<void> withdraw(const std::string& scratch) {
        const auto status = filesystem::statusAt(folder_.get(), scratch.c_str());
        if (status && S_ISDIR(status->mode) && !(made_ && isSameObject(*status, *made_))) {
            // At most the empty folder that could not be opened.
            (void)::unlinkat(folder_.get(), scratch.c_str(), AT_REMOVEDIR);
            return {};
        }
        return removeOwn(folder_.get(), scratch);
    }

    Result<Copied> appear(const filesystem::Status& status,
                          const std::function<Result<void>(const std::string&)>& put) {
        if (options_.monitor != nullptr) {
            if (auto asked = options_.monitor->check(); !asked) return failure(asked.error());
        }
        auto name = putUnderName(folder_, name_, options_.taken, [&](const std::string& tried) {
            if (options_.aboutToAppear) options_.aboutToAppear(status, tried);
            Announced announced(context_);
            announced.give(folder_.status, tried, status);
            return announced.madeIf(put(tried));
        });
        if (!name) return failure(name.error());
        return Copied{*name, status, digest_};
    }

    const Context& context_;
    const CopySource& source_;
    const OpenFolder& folder_;
    const std::string& name_;
    const CopyOptions& options_;
    std::uint64_t digest_ = 0;
    std::optional<filesystem::Status> made_;  ///< of what has the hidden name
};

}  // namespace

Result<void> synchronizeFolder(const OpenFolder& folder) {
    auto open = filesystem::openBeneath(folder.get(), {}, O_RDONLY | O_DIRECTORY);
    if (open) return synchronize(open->get());
    // Who may put something into a folder need not be allowed to read it.
    if (open.error().is(ErrorDomain::posix, EACCES)) return {};
    return failure(open.error());
}

Result<Copied> copyIntoFolder(const Context& context, const CopySource& source, const OpenFolder& folder,
                              const std::string& name, const CopyOptions& options) {
    return Copy(context, source, folder, name, options).run();
}

}  // namespace tarnwell::operations
