#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hostframework/FileOperations.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/filesystem/Roots.h"

namespace tarnwell::testing {

/// A host's file operations in their plainest form: they do what they say on real files, one after the other, without
/// coordination, and complete on a queue of their own. Any thread may call any operation.
class FakeFileOperations : public hostframework::FileOperations {
public:
    FakeFileOperations(std::shared_ptr<dispatch::ThreadPool> pool, const Roots& roots);

    /// The next operation that is started fails with this and touches nothing; further ones queue up.
    void failNext(Error error);
    /// From now on operations are done, but their answers are kept until `release`.
    void hold();
    /// Gives the answers kept, in their order; later ones are not kept. Returns when they were given.
    void release();
    std::size_t heldAnswers() const;
    /// Runs at the beginning of the next operation: what another process may do meanwhile.
    void meanwhile(std::function<void()> action);
    /// Returns when every operation started so far is done and, unless it is kept, answered.
    void drain();
    /// What was asked for, in order: "import /a under /b", "create n under /b", "rename /a to n", "move /a under /b",
    /// "move /a under /b as n", "… or another name", "trash /a under /b", "delete /a".
    std::vector<std::string> calls() const;
    /// "tarnwell.testing.file-operations", where answers are given.
    dispatch::SerialQueue& queue() { return *queue_; }

    void importUnderFolder(const URL& document, const URL& parent, URLCompletion completion) override;
    void createSubfolder(const URL& parent, const std::string& name, URLCompletion completion) override;
    void renameWithNewName(const URL& item, const std::string& name, URLCompletion completion) override;
    void reparentUnderFolder(const URL& item, const URL& parent, const std::optional<std::string>& newName,
                             hostframework::Bouncing bouncing, URLCompletion completion) override;
    void trashUnderFolder(const URL& item, const URL& trash, URLCompletion completion) override;
    void deleteItem(const URL& item, hostframework::Completion completion) override;

private:
    using Work = std::function<Result<URL>()>;
    void start(std::string call, Work work, URLCompletion completion);
    void answer(std::function<void()> give);
    Result<URL> move(const URL& item, const URL& parent, const std::string& name, hostframework::Bouncing bouncing);
    /// The real path of a place that is free for the name in the folder, and its URL.
    struct Target {
        std::string path;
        URL url;
    };
    Result<Target> target(const URL& parent, const std::string& name, hostframework::Bouncing bouncing) const;
    std::string realPath(const URL& url) const { return roots_.realPath(url.path()); }

    const Roots& roots_;
    const std::shared_ptr<dispatch::SerialQueue> queue_;
    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
    std::deque<Error> failures_;
    std::function<void()> meanwhile_;
    bool holds_ = false;
    std::vector<std::function<void()>> held_;
};

/// Grants access to real files as a host does, and can be told to refuse.
class FakeAccessScopes : public hostframework::AccessScopes {
public:
    explicit FakeAccessScopes(const Roots& roots) : roots_(roots) {}
    /// The next scope fails with this; further ones queue up.
    void failNext(Error error);
    /// The URLs' paths, in order.
    std::vector<std::string> granted() const;

    Result<void> readWrite(const URL& url, const std::function<Result<void>(const Descriptor&)>& work) override;

private:
    const Roots& roots_;
    mutable std::mutex mutex_;
    std::deque<Error> failures_;
    std::vector<std::string> granted_;
};

}  // namespace tarnwell::testing
