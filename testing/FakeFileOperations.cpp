#include "testing/FakeFileOperations.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <utility>

namespace tarnwell::testing {

using hostframework::Bouncing;
using hostframework::Completion;

namespace {

constexpr std::size_t kMaxNameBytes = 255;

bool exists(const std::string& path) {
    struct stat status{};
    return ::lstat(path.c_str(), &status) == 0;
}

bool isFolder(const std::string& path) {
    struct stat status{};
    return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

Result<void> checkName(const std::string& name) {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
        name.find('\0') != std::string::npos) {
        return failure(posixError(EINVAL, "\"" + name + "\" cannot be a name"));
    }
    if (name.size() > kMaxNameBytes) return failure(posixError(ENAMETOOLONG, "the name is too long"));
    return {};
}

/// "name 2.ext" for "name.ext".
std::string numbered(const std::string& name, int number) {
    const std::size_t dot = name.rfind('.');
    const std::size_t end = dot == std::string::npos || dot == 0 ? name.size() : dot;
    return name.substr(0, end) + " " + std::to_string(number) + name.substr(end);
}

Error asError(const std::error_code& code) { return posixError(code.value(), code.message()); }

}  // namespace

FakeFileOperations::FakeFileOperations(std::shared_ptr<dispatch::ThreadPool> pool, const Roots& roots)
    : roots_(roots), queue_(dispatch::SerialQueue::create(std::move(pool), "tarnwell.testing.file-operations")) {}

void FakeFileOperations::failNext(Error error) {
    const std::lock_guard lock(mutex_);
    failures_.push_back(std::move(error));
}

void FakeFileOperations::hold() {
    const std::lock_guard lock(mutex_);
    holds_ = true;
}

void FakeFileOperations::release() {
    queue_->sync([] {});  // what was asked for before is among the answers
    std::vector<std::function<void()>> answers;
    {
        const std::lock_guard lock(mutex_);
        holds_ = false;
        answers.swap(held_);
    }
    queue_->sync([&] {
        for (const auto& give : answers) give();
    });
}

std::size_t FakeFileOperations::heldAnswers() const {
    queue_->sync([] {});
    const std::lock_guard lock(mutex_);
    return held_.size();
}

void FakeFileOperations::meanwhile(std::function<void()> action) {
    const std::lock_guard lock(mutex_);
    meanwhile_ = std::move(action);
}

void FakeFileOperations::drain() {
    queue_->sync([] {});
}

std::vector<std::string> FakeFileOperations::calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
}

void FakeFileOperations::start(std::string call, Work work, URLCompletion completion) {
    std::optional<Error> scripted;
    std::function<void()> meanwhile;
    {
        const std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
        meanwhile = std::exchange(meanwhile_, {});
        if (!failures_.empty()) {
            scripted = std::move(failures_.front());
            failures_.pop_front();
        }
    }
    queue_->async([this, scripted = std::move(scripted), meanwhile = std::move(meanwhile), work = std::move(work),
                   completion = std::move(completion)] {
        if (meanwhile) meanwhile();
        auto outcome = scripted ? Result<URL>(failure(*scripted)) : work();
        answer([outcome = std::move(outcome), completion] { completion(outcome); });
    });
}

void FakeFileOperations::answer(std::function<void()> give) {
    {
        const std::lock_guard lock(mutex_);
        if (holds_) {
            held_.push_back(std::move(give));
            return;
        }
    }
    give();
}

void FakeFileOperations::importUnderFolder(const URL& document, const URL& parent, URLCompletion completion) {
    start(
        "import " + document.path() + " under " + parent.path(),
        [this, document, parent]() -> Result<URL> {
            const auto place = target(parent, std::string(document.lastPathComponent()), Bouncing::refused);
            if (!place) return failure(place.error());
            std::error_code code;
            std::filesystem::copy(
                realPath(document), place->path,
                std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks, code);
            if (code) return failure(asError(code));
            return place->url;
        },
        std::move(completion));
}

void FakeFileOperations::createSubfolder(const URL& parent, const std::string& name, URLCompletion completion) {
    start(
        "create " + name + " under " + parent.path(),
        [this, parent, name]() -> Result<URL> {
            const auto place = target(parent, name, Bouncing::refused);
            if (!place) return failure(place.error());
            if (::mkdir(place->path.c_str(), 0777) != 0) return failure(posixError(errno));
            return place->url;
        },
        std::move(completion));
}

void FakeFileOperations::renameWithNewName(const URL& item, const std::string& name, URLCompletion completion) {
    start(
        "rename " + item.path() + " to " + name,
        [this, item, name] { return move(item, item.deletingLastPathComponent(), name, Bouncing::refused); },
        std::move(completion));
}

void FakeFileOperations::reparentUnderFolder(const URL& item, const URL& parent,
                                             const std::optional<std::string>& newName, Bouncing bouncing,
                                             URLCompletion completion) {
    start(
        "move " + item.path() + " under " + parent.path() + (newName ? " as " + *newName : "") +
            (bouncing == Bouncing::allowed ? " or another name" : ""),
        [this, item, parent, newName, bouncing] {
            return move(item, parent, newName.value_or(std::string(item.lastPathComponent())), bouncing);
        },
        std::move(completion));
}

void FakeFileOperations::trashUnderFolder(const URL& item, const URL& trash, URLCompletion completion) {
    start(
        "trash " + item.path() + " under " + trash.path(),
        [this, item, trash] { return move(item, trash, std::string(item.lastPathComponent()), Bouncing::allowed); },
        std::move(completion));
}

void FakeFileOperations::deleteItem(const URL& item, Completion completion) {
    start(
        "delete " + item.path(),
        [this, item]() -> Result<URL> {
            if (!exists(realPath(item))) return failure(posixError(ENOENT));
            std::error_code code;
            std::filesystem::remove_all(realPath(item), code);
            if (code) return failure(asError(code));
            return item;
        },
        [completion = std::move(completion)](const Result<URL>& outcome) {
            completion(outcome ? std::nullopt : std::optional(outcome.error()));
        });
}

Result<URL> FakeFileOperations::move(const URL& item, const URL& parent, const std::string& name, Bouncing bouncing) {
    if (!exists(realPath(item))) return failure(posixError(ENOENT));
    // The same place is no collision.
    if (item == parent.appending(name)) return URL::file(item.path());
    const auto place = target(parent, name, bouncing);
    if (!place) return failure(place.error());
    if (std::rename(realPath(item).c_str(), place->path.c_str()) != 0) return failure(posixError(errno));
    return place->url;
}

Result<FakeFileOperations::Target> FakeFileOperations::target(const URL& parent, const std::string& name,
                                                              Bouncing bouncing) const {
    if (auto good = checkName(name); !good) return failure(good.error());
    const std::string folder = realPath(parent);
    if (!exists(folder)) return failure(posixError(ENOENT));
    if (!isFolder(folder)) return failure(posixError(ENOTDIR));
    std::string free = name;
    for (int number = 2; exists(folder + "/" + free); ++number) {
        const URL colliding = parent.appending(free);
        if (bouncing == Bouncing::refused) {
            return failure(
                {ErrorDomain::generalFile, kFileExists, {{hostframework::kErrorCollidingURL, colliding.path()}}});
        }
        free = numbered(name, number);
    }
    return Target{folder + "/" + free, parent.appending(free)};
}

void FakeAccessScopes::failNext(Error error) {
    const std::lock_guard lock(mutex_);
    failures_.push_back(std::move(error));
}

std::vector<std::string> FakeAccessScopes::granted() const {
    const std::lock_guard lock(mutex_);
    return granted_;
}

Result<void> FakeAccessScopes::readWrite(const URL& url, const std::function<Result<void>(const Descriptor&)>& work) {
    {
        const std::lock_guard lock(mutex_);
        if (!failures_.empty()) {
            const Error error = std::move(failures_.front());
            failures_.pop_front();
            return failure(error);
        }
        granted_.push_back(url.path());
    }
    const std::string path = roots_.realPath(url.path());
    struct stat status{};
    if (::lstat(path.c_str(), &status) != 0) return failure(posixError(errno));
    if (S_ISLNK(status.st_mode)) return failure(posixError(ELOOP));
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) return failure(posixError(EOPNOTSUPP));
    const Descriptor descriptor(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!descriptor.valid()) return failure(posixError(errno));
    return work(descriptor);
}

}  // namespace tarnwell::testing
