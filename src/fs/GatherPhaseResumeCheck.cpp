#include "fs/GatherPhaseResumeCheck.h"

#include <semaphore>

#include "fs/FSEventReader.h"

namespace tarnwell::fs {
namespace {

using Status = FSEventReaderGatherPhaseResumeStatus;

/// Waits for the first report that settles the question. What comes after it is ignored: the status belongs to the
/// waiting thread then.
class FSEventChecker : public FSEventReaderDelegate {
public:
    explicit FSEventChecker(std::weak_ptr<FSEventReader> reader) : reader_(std::move(reader)) {}

    Status wait() {
        sema_.acquire();
        return gatherPhaseResumeStatus_;
    }

    void itemChanged(const URL&, const std::shared_ptr<const items::LocalItem>&) override {}
    void itemDeleted(const URL& url, const std::shared_ptr<const items::LocalItem>&) override {
        settle({Status::DeletionOccurred{url.path()}});
    }
    void historyDone() override { settle({Status::CanResume{}}); }
    void eventsDropped() override { settle({Status::CantReplayHistoricalFSEvents{}}); }
    void batchFinished() override {}

private:
    void settle(Status status) {
        const auto reader = reader_.lock();
        if (isSettled_ || !reader) return;
        reader->streamQueue()->assertCurrent();
        isSettled_ = true;
        gatherPhaseResumeStatus_ = std::move(status);
        reader->streamQueue()->async([reader] { reader->stop(); });
        sema_.release();
    }

    const std::weak_ptr<FSEventReader> reader_;
    Status gatherPhaseResumeStatus_;
    bool isSettled_ = false;
    std::binary_semaphore sema_{0};
};

}  // namespace

GatherPhaseResumeAnswer canResumeGatherPhase(const FSEnvironment& environment, const std::vector<URL>& urls,
                                             EventID previousEventID) {
    // The stream below compares with the disk before it reports, so that a look at the disk here would be the second
    // one.
    const EventID presentEventID = environment.events.recordedEventID();
    const auto reader = FSEventReader::create(environment, {.urls = urls,
                                                            .since = previousEventID,
                                                            .mode = FSEventReader::Mode::pathBased,
                                                            .verbose = false,
                                                            .interest = events::Interest::departuresOnly});
    const auto checker = std::make_shared<FSEventChecker>(reader);
    reader->setDelegate(checker);
    // This thread waits for the answer, so it may as well find it.
    reader->streamQueue()->asyncAndHelp([reader] { reader->start(); });
    auto status = checker->wait();
    // The stop was queued before the answer came; behind it, nothing of the reader is left to run.
    reader->streamQueue()->sync([] {});
    return {std::move(status), presentEventID};
}

}  // namespace tarnwell::fs
