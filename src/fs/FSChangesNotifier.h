#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "fs/FSEventReader.h"

namespace tarnwell::fs {

/// Watches folders from its creation on and tells the host to ask for changes: after each batch, once anything changed,
/// it signals RootContainer (unless it serves the working set) and then WorkingSetContainer. Any thread may call it.
class FSChangesNotifier : public FSEventReaderDelegate {
public:
    /// Null, after an error line, when the device's UUID cannot be had. No URLs stop the process.
    static std::shared_ptr<FSChangesNotifier> create(const FSEnvironment& environment, std::string container,
                                                     std::vector<URL> urls);

    /// Begin and end the watching, soon. Changes between creation and start, or between stop and start, are told of
    /// after the start. A notifier must be stopped before its last reference goes.
    void start();
    void stop();

    /// True from `start` to `stop`.
    bool isStarted() const { return isStarted_.load(); }
    const std::string& container() const { return container_; }
    /// The identity of the event IDs of the watched folders' device, as it was at creation.
    const UUID& deviceUUID() const { return deviceUUID_; }
    const std::shared_ptr<FSEventReader>& reader() const { return reader_; }

    void itemChanged(const URL& url, const std::shared_ptr<const items::LocalItem>& item) override;
    void itemDeleted(const URL& url, const std::shared_ptr<const items::LocalItem>& item) override;
    void historyDone() override;
    void eventsDropped() override;
    void batchFinished() override;

private:
    FSChangesNotifier(const FSEnvironment& environment, std::string container, UUID deviceUUID,
                      std::shared_ptr<FSEventReader> reader);
    void noteChange();
    void signalChange(const std::string& container);

    const FSEnvironment& environment_;
    const std::string container_;
    const std::shared_ptr<FSEventReader> reader_;
    const UUID deviceUUID_;
    std::atomic<bool> isStarted_{false};
    /// On the stream queue only. Never goes back to false: every batch after the first change signals again.
    bool shouldSignalChange_ = false;
};

}  // namespace tarnwell::fs
