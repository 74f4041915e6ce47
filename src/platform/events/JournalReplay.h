#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/events/FileEventService.h"
#include "platform/files/Comparer.h"
#include "platform/store/Store.h"

namespace tarnwell::events {

/// Reads the journal for one stream: turns its records into events about what is true now. Not for two threads at once.
class JournalReplay {
public:
    /// The folders of a stream over paths, and whether they hold all that the service knows.
    struct Scope {
        std::vector<Place> folders;
        bool isEverything = false;
    };
    JournalReplay(files::Comparer& comparer, store::Store& store, const StreamOptions& options, Scope scope)
        : comparer_(comparer), store_(store), options_(options), scope_(std::move(scope)) {}

    /// True when everything after the position is still told.
    Result<bool> canReplayAfter(EventID since);
    /// The events after the position up to `upTo`, at most a batch of them, and how far the batch reaches.
    struct Batch {
        std::vector<FileEvent> events;
        EventID reached{};
        bool more = false;
    };
    Result<Batch> batchAfter(EventID since, EventID upTo);

private:
    std::optional<FileEvent> eventFor(store::Session& session, const store::Journal::Record& record);
    std::optional<FileEvent> eventForObject(store::Session& session, const store::ObjectRow& row, EventID event);
    std::optional<FileEvent> eventForDeparture(store::Session& session, const store::Departure& departure);
    std::optional<FileEvent> eventForDocument(store::Session& session, const store::DocumentChange& change);
    bool wasDropped(store::Session& session, FileID folder, std::uint64_t before, std::set<FileID>& asked);
    bool isAlive(store::Session& session, const store::Departure& departure);
    std::optional<std::string> pathOfDeparture(store::Session& session, const store::Departure& departure);
    bool broughtContents(store::Session& session, FileID folder, int depth = 0);
    std::optional<std::string> pathBelowFolders(store::Session& session, const store::ObjectRow& row);
    bool isBelowFolders(std::string_view path) const;
    std::uint64_t begunAt() const { return raw(options_.begunAt.value_or(options_.since)); }

    files::Comparer& comparer_;
    store::Store& store_;
    const StreamOptions& options_;
    Scope scope_;
    bool goesOn_ = false;  ///< the batch at hand is not the reader's first
};

}  // namespace tarnwell::events
