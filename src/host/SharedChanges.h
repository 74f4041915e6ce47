#pragma once

#include <chrono>
#include <compare>
#include <cstddef>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <utility>

#include "session/Session.h"

namespace tarnwell::host {

/// Clients that follow the same container ask for the same changes: a backup, a search and two file managers that were
/// away for an hour all begin at the same anchors. What one of them was told is kept for a moment, and told to the
/// others as long as nothing has changed since. What is older goes at the next question, whatever that asks for: a list
/// holds memory, and the descriptor of the file it was packed into.
///
/// Whether something has changed says the container's current anchor, asked for before each time: it tells of all that
/// clients have to hear of, up to the request. Batches after which no more is coming are told to nobody else: each
/// client's own enumerator has to see that end. Any thread.
class SharedChanges {
public:
    static constexpr std::size_t kMostBatches = 16;
    static constexpr std::size_t kMostAnchors = 128;
    static constexpr std::chrono::seconds kLongestKept{5};

    using Identifier = session::ItemIdentifier;
    using Ask = std::function<Result<session::ChangeBatch>()>;
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    using CurrentAnchor = std::function<Result<std::optional<Bytes>>()>;

    explicit SharedChanges(Clock clock = std::chrono::steady_clock::now) : clock_(std::move(clock)) {}

    /// What `ask` answers, or answered another client, whose list it is then (and what that was packed to). It is asked
    /// on this thread, or another client's asking is waited for.
    Result<session::ChangeBatch> changes(const Identifier& container, const Bytes& anchor,
                                         const CurrentAnchor& currentAnchor, const Ask& ask);

private:
    struct Key {
        Identifier container;
        Bytes anchor;
        friend bool operator==(const Key&, const Key&) = default;
    };
    using Batch = std::shared_ptr<const session::ChangeBatch>;  ///< null where there is none to share
    struct Shared {
        Key key;
        Bytes state;  ///< the current anchor before it was asked for
        std::chrono::steady_clock::time_point begun;
        std::shared_future<Batch> batch;
    };
    void forgetOld();
    bool mayBeAskedAgain(const Key& key);
    void note(Key key);
    void forget(const Key& key);

    const Clock clock_;
    std::mutex mutex_;
    std::list<Key> anchors_;    ///< from which more than one batch was told, and between those; the latest first
    std::list<Shared> shared_;  ///< the latest first
};

}  // namespace tarnwell::host
