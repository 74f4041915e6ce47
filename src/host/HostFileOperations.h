#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "hostframework/FileCoordinator.h"
#include "hostframework/FileOperations.h"
#include "platform/dispatch/ThreadPool.h"
#include "platform/operations/Operations.h"
#include "platform/operations/TransferMonitor.h"

namespace tarnwell::host {

/// The host's file operations on the real file system. Operations run on the threads of the pool, sixteen at a time at
/// most, in the order given where they touch the same paths. A completion runs on the thread that did the work, when
/// the paths are free again, so that it may ask for further work on them.
class HostFileOperations : public hostframework::FileOperations, public hostframework::AccessScopes {
public:
    static constexpr std::size_t kMostAtOnce = 16;

    /// Borrows what the context names, which outlives this.
    HostFileOperations(operations::Context context, std::shared_ptr<dispatch::ThreadPool> pool);
    /// Waits for the operations under way; those that have not begun end with ECANCELED.
    ~HostFileOperations() override;

    /// Settles what a killed process left. To be called before the first operation.
    void cleanUp();

    void importUnderFolder(const URL& document, const URL& parent, URLCompletion completion) override;
    void createSubfolder(const URL& parent, const std::string& name, URLCompletion completion) override;
    void renameWithNewName(const URL& item, const std::string& name, URLCompletion completion) override;
    void reparentUnderFolder(const URL& item, const URL& parent, const std::optional<std::string>& newName,
                             hostframework::Bouncing bouncing, URLCompletion completion) override;
    void trashUnderFolder(const URL& item, const URL& trash, URLCompletion completion) override;
    void deleteItem(const URL& item, hostframework::Completion completion) override;
    Result<void> readWrite(const URL& url, const std::function<Result<void>(const Descriptor&)>& work) override;

    /// Calls `start`, which asks for an operation. Copies of the document that it asks for, at once or later, until the
    /// monitor goes, are told to the monitor and may be cancelled by it. The document is what is imported, or moved to
    /// another file system. What is asked for later is the last one's that was attached to the document.
    void startWatched(const URL& document, const std::weak_ptr<operations::TransferMonitor>& monitor,
                      const std::function<void()>& start);

    /// A descriptor of the document or folder at the URL, opened as one of the readers of that path, or as its one
    /// writer: no operation moves or replaces it meanwhile. O_RDWR for writing, which folders are not opened for
    /// (EISDIR), else O_RDONLY; O_NONBLOCK. ELOOP for a link and EINVAL for whatever else is no document, neither of
    /// which is opened; missing permission is the general file error 513.
    Result<Descriptor> open(const URL& url, hostframework::FileCoordinator::Use use);
    /// Told of every object that is copied because it cannot be moved (see operations::MoveOptions::copied). To be set
    /// before the first operation.
    void setCopiedListener(std::function<void(const operations::CopiedObject&)> listener);

    /// Where an item in a trash folder came from, if it was put there by these operations: the folder, if the index
    /// knew it, and its name.
    std::optional<store::TrashOrigin> trashOriginOf(const URL& item) const;

private:
    class Runner;
    using Work = std::move_only_function<Result<Place>(operations::TransferMonitor*)>;
    void start(std::vector<hostframework::FileCoordinator::Path> paths, const URL* document, Work work,
               URLCompletion completion);

    const operations::Context context_;
    const std::shared_ptr<Runner> runner_;
    std::mutex startMutex_;  ///< between attaching a monitor and asking for what it watches
    std::function<void(const operations::CopiedObject&)> copied_;
};

}  // namespace tarnwell::host
