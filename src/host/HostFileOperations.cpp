#include "host/HostFileOperations.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <vector>

#include "platform/base/SystemCall.h"
#include "platform/operations/OperationErrors.h"

namespace tarnwell::host {

using hostframework::FileCoordinator;
using Use = FileCoordinator::Use;
using operations::TransferMonitor;

namespace {

Error notShown(const URL& url) {
    return Error{ErrorDomain::posix,
                 ENOENT,
                 {{kErrorMessage, "\"" + url.path() + "\" lies in none of the folders that are shown"},
                  {kErrorPath, url.path()}}};
}

Error unfinished() { return posixError(ECANCELED, "the program is ending"); }

/// As the provider expects it: what has the name is told by its URL.
Error forProvider(Error error) {
    if (!error.is(ErrorDomain::generalFile, kFileExists)) return error;
    if (auto path = error.userInfo.extract(kErrorPath)) {
        path.key() = hostframework::kErrorCollidingURL;
        error.userInfo.insert(std::move(path));
    }
    return error;
}

Result<URL> asURL(const Result<Place>& place) {
    if (place) return URL::file(operations::urlPath(*place));
    return failure(forProvider(place.error()));
}

/// A name that is none cannot lead the claim elsewhere; the operation refuses it.
std::string pathIn(const URL& folder, const std::string& name) {
    const bool isPlain = !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
    return isPlain ? folder.path() + "/" + name : folder.path();
}

/// A document or folder, opened for its place only: opening a pipe would have an effect on it.
struct FoundObject {
    Descriptor place;
    bool isFolder = false;
};

Result<FoundObject> objectAt(const Place& place) {
    auto object = filesystem::openBeneath(place.root->directory.get(), place.relative, O_PATH | O_NOFOLLOW);
    if (!object) return failure(object.error());
    const auto status = filesystem::statusOf(object->get());
    if (!status) return failure(status.error());
    if (S_ISLNK(status->mode)) return failure(posixError(ELOOP));
    if (!S_ISREG(status->mode) && !S_ISDIR(status->mode)) return failure(posixError(EINVAL));
    return FoundObject{std::move(*object), S_ISDIR(status->mode)};
}

/// The very object, whatever stands under its name by now.
Result<Descriptor> reopen(const FoundObject& object, int flags) {
    const std::string itself = pathOfDescriptor(object.place.get());
    Descriptor opened(untilNotInterrupted([&] { return ::open(itself.c_str(), flags | O_NONBLOCK | O_CLOEXEC); }));
    if (!opened.valid()) return failedCall();
    return opened;
}

std::string nameOf(const URL& url) { return std::string(url.lastPathComponent()); }

std::string parentPath(const URL& url) { return url.deletingLastPathComponent().path(); }

}  // namespace

/// What outlives the operations' caller: the order of the paths, and how many run.
class HostFileOperations::Runner : public std::enable_shared_from_this<Runner> {
public:
    explicit Runner(std::shared_ptr<dispatch::ThreadPool> pool) : pool_(std::move(pool)) {}

    /// One operation with its place in the order. Whoever drops it without running it completes it with an error.
    struct Job {
        HostFileOperations::Work work;
        URLCompletion completion;
        std::shared_ptr<TransferMonitor> monitor;
        FileCoordinator::Grant grant;

        Job() = default;
        Job(const Job&) = delete;
        Job& operator=(const Job&) = delete;
        ~Job() {
            grant.release();
            if (completion) completion(failure(unfinished()));
        }
    };

    void add(std::vector<FileCoordinator::Path> paths, std::shared_ptr<Job> job) {
        coordinator_.claim(std::move(paths), [self = shared_from_this(), job](FileCoordinator::Grant grant) {
            job->grant = std::move(grant);
            self->ready(job);
        });
    }

    FileCoordinator::Grant wait(std::vector<FileCoordinator::Path> paths) {
        return coordinator_.wait(std::move(paths));
    }

    void attach(const std::string& path, std::weak_ptr<TransferMonitor> monitor) {
        const std::lock_guard lock(mutex_);
        std::erase_if(monitors_, [](const auto& entry) { return entry.second.expired(); });
        monitors_[path] = std::move(monitor);
    }
    std::shared_ptr<TransferMonitor> monitorOf(const std::string& path) {
        const std::lock_guard lock(mutex_);
        const auto found = monitors_.find(path);
        return found != monitors_.end() ? found->second.lock() : nullptr;
    }

    void end() {
        std::unique_lock lock(mutex_);
        isEnding_ = true;
        while (!ready_.empty() || running_ > 0 || completing_ > 0) {
            std::deque<std::shared_ptr<Job>> dropped = std::exchange(ready_, {});
            if (dropped.empty()) {
                quiet_.wait(lock);
                continue;
            }
            lock.unlock();
            // Their completions run here, and what waited for their paths comes in as dropped in turn.
            dropped.clear();
            lock.lock();
        }
    }

private:
    void ready(const std::shared_ptr<Job>& job) {
        {
            const std::lock_guard lock(mutex_);
            ready_.push_back(job);
            if (isEnding_) {
                quiet_.notify_all();
                return;
            }
            if (running_ == kMostAtOnce) return;
            ++running_;
        }
        pool_->run([self = shared_from_this()] { self->work(); });
    }

    /// What runs out of memory is an operation that failed, and its place among those at work is free again.
    static Result<Place> done(Job& job) {
        try {
            Result<Place> result = job.work(job.monitor.get());
            job.work = {};
            return result;
        } catch (const std::exception& thrown) {
            job.work = {};
            return failure(posixError(ENOMEM, std::string("it could not be finished: ") + thrown.what()));
        }
    }

    /// Runs with a place among the operations at once, and gives it back before each completion: one that waits for
    /// paths must not keep those from running that have them.
    void work() {
        std::unique_lock lock(mutex_);
        for (;;) {
            if (ready_.empty() || isEnding_) {
                --running_;
                quiet_.notify_all();
                return;
            }
            auto job = std::move(ready_.front());
            ready_.pop_front();
            lock.unlock();
            const Result<URL> result = asURL(done(*job));
            job->grant.release();
            lock.lock();
            --running_;
            ++completing_;
            const bool isMoreReady = !ready_.empty() && !isEnding_ && running_ < kMostAtOnce;
            if (isMoreReady) ++running_;
            lock.unlock();
            if (isMoreReady) pool_->run([self = shared_from_this()] { self->work(); });
            if (const auto completion = std::exchange(job->completion, {})) completion(result);
            job.reset();
            lock.lock();
            --completing_;
            quiet_.notify_all();
            if (ready_.empty() || running_ == kMostAtOnce) return;
            ++running_;
        }
    }

    const std::shared_ptr<dispatch::ThreadPool> pool_;
    FileCoordinator coordinator_;
    std::mutex mutex_;
    std::condition_variable quiet_;
    std::deque<std::shared_ptr<Job>> ready_;
    std::size_t running_ = 0;     ///< operations at work on the disk, or about to be
    std::size_t completing_ = 0;  ///< completions that run
    bool isEnding_ = false;
    std::map<std::string, std::weak_ptr<TransferMonitor>> monitors_;
};

HostFileOperations::HostFileOperations(operations::Context context, std::shared_ptr<dispatch::ThreadPool> pool)
    : context_(context), runner_(std::make_shared<Runner>(std::move(pool))) {}

HostFileOperations::~HostFileOperations() { runner_->end(); }

void HostFileOperations::cleanUp() { operations::cleanUp(context_); }

void HostFileOperations::startWatched(const URL& document, const std::weak_ptr<TransferMonitor>& monitor,
                                      const std::function<void()>& start) {
    // Of two who import the same document at once, neither may get the other's.
    const std::lock_guard lock(startMutex_);
    runner_->attach(document.path(), monitor);
    start();
}

void HostFileOperations::setCopiedListener(std::function<void(const operations::CopiedObject&)> listener) {
    copied_ = std::move(listener);
}

void HostFileOperations::start(std::vector<FileCoordinator::Path> paths, const URL* document, Work work,
                               URLCompletion completion) {
    const auto job = std::make_shared<Runner::Job>();
    job->work = std::move(work);
    job->completion = std::move(completion);
    if (document != nullptr) job->monitor = runner_->monitorOf(document->path());
    runner_->add(std::move(paths), job);
}

void HostFileOperations::importUnderFolder(const URL& document, const URL& parent, URLCompletion completion) {
    start(
        {{document.path(), Use::reading}, {pathIn(parent, nameOf(document)), Use::writing}}, &document,
        [this, document, parent](TransferMonitor* monitor) -> Result<Place> {
            if (!document.isFileURL()) return failure(notShown(document));
            const auto folder = context_.roots.locate(parent.path());
            if (!folder) return failure(notShown(parent));
            return operations::importItem(context_, context_.roots.realPath(document.path()), *folder, monitor);
        },
        std::move(completion));
}

void HostFileOperations::createSubfolder(const URL& parent, const std::string& name, URLCompletion completion) {
    start(
        {{pathIn(parent, name), Use::writing}}, nullptr,
        [this, parent, name](TransferMonitor*) -> Result<Place> {
            const auto folder = context_.roots.locate(parent.path());
            if (!folder) return failure(notShown(parent));
            return operations::makeFolder(context_, *folder, name);
        },
        std::move(completion));
}

void HostFileOperations::renameWithNewName(const URL& item, const std::string& name, URLCompletion completion) {
    start(
        {{item.path(), Use::writing}, {pathIn(item.deletingLastPathComponent(), name), Use::writing}}, nullptr,
        [this, item, name](TransferMonitor*) -> Result<Place> {
            const auto place = context_.roots.locate(item.path());
            if (!place) return failure(notShown(item));
            return operations::renameItem(context_, *place, name);
        },
        std::move(completion));
}

void HostFileOperations::reparentUnderFolder(const URL& item, const URL& parent,
                                             const std::optional<std::string>& newName,
                                             hostframework::Bouncing bouncing, URLCompletion completion) {
    start(
        {{item.path(), Use::writing}, {pathIn(parent, newName.value_or(nameOf(item))), Use::writing}}, &item,
        [this, item, parent, newName, bouncing](TransferMonitor* monitor) -> Result<Place> {
            const auto place = context_.roots.locate(item.path());
            if (!place) return failure(notShown(item));
            const auto folder = context_.roots.locate(parent.path());
            if (!folder) return failure(notShown(parent));
            operations::MoveOptions options;
            options.taken =
                bouncing == hostframework::Bouncing::allowed ? operations::Taken::freeName : operations::Taken::refused;
            options.monitor = monitor;
            options.copied = copied_;
            if (!parentPath(item).ends_with("/.Trash")) {
                return operations::moveItem(context_, *place, *folder, newName.value_or(nameOf(item)), options);
            }
            // Inside the trash nothing is put back.
            const bool isLeaving = parent.path() != parentPath(item);
            const std::string name = newName     ? *newName
                                     : isLeaving ? operations::putBackName(context_, *place)
                                                 : nameOf(item);
            if (!isLeaving) return operations::moveItem(context_, *place, *folder, name, options);
            return operations::moveOutOfTrash(context_, *place, *folder, name, options);
        },
        std::move(completion));
}

void HostFileOperations::trashUnderFolder(const URL& item, const URL& trash, URLCompletion completion) {
    start(
        {{item.path(), Use::writing}, {pathIn(trash, nameOf(item)), Use::writing}}, &item,
        [this, item, trash](TransferMonitor* monitor) -> Result<Place> {
            const auto place = context_.roots.locate(item.path());
            if (!place) return failure(notShown(item));
            const auto folder = context_.roots.locate(trash.path());
            if (!folder) return failure(notShown(trash));
            operations::MoveOptions options;
            options.monitor = monitor;
            options.copied = copied_;
            return operations::trashItem(context_, *place, *folder, options);
        },
        std::move(completion));
}

void HostFileOperations::deleteItem(const URL& item, hostframework::Completion completion) {
    start(
        {{item.path(), Use::writing}}, nullptr,
        [this, item](TransferMonitor*) -> Result<Place> {
            const auto place = context_.roots.locate(item.path());
            if (!place) return failure(notShown(item));
            if (auto removed = operations::removeItem(context_, *place); !removed) return failure(removed.error());
            return *place;
        },
        [completion = std::move(completion)](const Result<URL>& result) {
            completion(result ? std::nullopt : std::optional(result.error()));
        });
}

Result<void> HostFileOperations::readWrite(const URL& url, const std::function<Result<void>(const Descriptor&)>& work) {
    const auto place = context_.roots.locate(url.path());
    if (!url.isFileURL() || !place) return failure(notShown(url));
    const auto grant = runner_->wait({{url.path(), Use::writing}});
    const auto refused = [&](const Error& error) {
        Error told = operations::explained(error, "be written to", url.path());
        // Callers ask for the kernel's errors here.
        told.domain = ErrorDomain::posix;
        told.code = error.code;
        return failure(std::move(told));
    };
    const auto found = objectAt(*place);
    if (!found) return refused(found.error());
    auto granted = reopen(*found, O_RDONLY);
    // One that may be written but not read.
    if (!granted && !found->isFolder && granted.error().code == EACCES) granted = reopen(*found, O_WRONLY);
    if (!granted) return refused(granted.error());
    return work(*granted);
}

Result<Descriptor> HostFileOperations::open(const URL& url, Use use) {
    const auto place = context_.roots.locate(url.path());
    if (!url.isFileURL() || !place) return failure(notShown(url));
    const auto grant = runner_->wait({{url.path(), use}});
    const auto refused = [&](const Error& error) {
        const bool isLink = error.code == ELOOP, isOther = error.code == EINVAL, isFolder = error.code == EISDIR;
        return failure(
            operations::explained(isLink ? posixError(ELOOP, "it is a link, or lies behind one; links are not followed")
                                  : isOther  ? posixError(EINVAL, "it is neither a document nor a folder")
                                  : isFolder ? posixError(EISDIR, "it is a folder; only documents are written to")
                                             : error,
                                  "be opened", context_.roots.realPath(url.path())));
    };
    const auto found = objectAt(*place);
    if (!found) return refused(found.error());
    if (use == Use::writing && found->isFolder) return refused(posixError(EISDIR));
    auto opened = reopen(*found, use == Use::writing ? O_RDWR : O_RDONLY);
    if (!opened) return refused(opened.error());
    return opened;
}

std::optional<store::TrashOrigin> HostFileOperations::trashOriginOf(const URL& item) const {
    const auto place = context_.roots.locate(item.path());
    return place ? operations::trashOriginOf(context_, *place) : std::nullopt;
}

}  // namespace tarnwell::host
