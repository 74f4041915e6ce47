#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fs/ChangeToken.h"
#include "fs/FSEventReader.h"
#include "hostframework/ProviderEnumerator.h"

namespace tarnwell::fs {

/// Answers one request for changes: replays what happened below the folders since an anchor, by path and then by
/// document ID, and forwards each change to an observer, at most 200 of them; then finishes with the anchor from which
/// the next request goes on.
///
/// Which update ends in what:
/// - The working set is not told of app libraries, the all-directories container only of folders; other containers are
///   told of everything below their folders.
/// - A folder that came from outside the folders brings its contents: they are walked and told of as updates. Their
///   place in the count is remembered with the batch; when something left the folder between two batches, its contents
///   are told from the beginning again.
/// - `maxFSEventID` has no value until the history by path was told: it is then the position that was reached, and the
///   history by document ID ends there, so that the two passes meet the same moment.
///
/// Lives from `start` to its finish; whoever makes it keeps it. Everything runs on the stream queue of the reader at
/// work.
class FSChangesEnumerator : public FSEventReaderDelegate, public std::enable_shared_from_this<FSChangesEnumerator> {
public:
    static constexpr std::uint64_t kBatchSize = 200;

    /// No URLs stop the process.
    static std::shared_ptr<FSChangesEnumerator> create(const FSEnvironment& environment, const ChangeToken& token,
                                                       std::string container, std::vector<URL> urls,
                                                       std::shared_ptr<hostframework::ChangeObserver> observer);

    /// Begin, or end without a finish, soon.
    void start();
    void stop();

    const std::string& container() const { return container_; }

    void itemChanged(const URL& url, const std::shared_ptr<const items::LocalItem>& item) override;
    void itemDeleted(const URL& url, const std::shared_ptr<const items::LocalItem>& item) override;
    void historyDone() override;
    void eventsDropped() override;
    void batchFinished() override;

private:
    FSChangesEnumerator(const FSEnvironment& environment, const ChangeToken& token, std::string container,
                        std::vector<URL> urls, std::shared_ptr<hostframework::ChangeObserver> observer);
    std::shared_ptr<FSEventReader> makeReader(FSEventReader::Mode mode) const;
    std::shared_ptr<FSEventReader> reader() const;
    Result<void> takeUp();
    void begin();
    void goOnInFolder();
    void deliverContents(const URL& folder, FileID fileID, std::uint64_t offset, EventID since);
    void forwardUpdate(const std::shared_ptr<const items::LocalItem>& item, std::uint32_t flags);
    bool isForContainer(const items::LocalItem& item) const;
    bool isForContainer(const std::string& deletedIdentifier) const;
    void noteProgress();
    bool countIn();
    void countOut();
    void startDocumentPass();
    void finish(bool moreComing);
    void fail(const Error& error);

    const FSEnvironment& environment_;
    ChangeToken currentToken_;
    std::uint64_t numberOfChanges_ = 0;
    const std::string container_;
    const std::vector<URL> urls_;
    mutable std::mutex readerMutex_;  ///< `stop` comes on any thread
    std::shared_ptr<FSEventReader> reader_;
    const std::shared_ptr<hostframework::ChangeObserver> observer_;
    bool shouldProcessedFSEventsDocIDBased_ = true;
    const EventID sinceFSEventID_;
    std::optional<EventID> maxFSEventID_;
    /// Where the batch after this one begins, as far as this one has come.
    store::Continuation reached_;
    /// Why the request cannot be answered; told when it starts.
    std::optional<Error> refusal_;
    bool isFinished_ = false;
};

}  // namespace tarnwell::fs
