#pragma once

#include <cstddef>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "host/EnumeratorHolder.h"
#include "hostframework/ProviderExtension.h"

namespace tarnwell::host {

/// Keeps enumerators between requests, so that paging through a container and following it need not make one each time.
/// An enumerator serves one request at a time: who asks for a container whose enumerators are all busy gets a new one.
/// Any thread may call any operation; everything that was lent is back before it goes.
class EnumeratorPool {
public:
    /// So many that nobody uses at the moment are kept, beside those of watched containers.
    static constexpr std::size_t kMostIdle = 64;
    using Identifier = hostframework::ItemIdentifier;
    using Holder = std::unique_ptr<EnumeratorHolder>;

    explicit EnumeratorPool(hostframework::ProviderExtension& provider) : provider_(provider) {}
    EnumeratorPool(const EnumeratorPool&) = delete;
    EnumeratorPool& operator=(const EnumeratorPool&) = delete;

    struct Lent {
        Holder enumerator;
        bool isNew = false;  ///< made for this request
    };
    /// One that is kept, or a new one. Fails as the provider does: no such item.
    Result<Lent> take(const Identifier& container);
    Result<Lent> takeNew(const Identifier& container);

    /// `whileWatched` keeps it only where the container is watched.
    enum class Keep { always, whileWatched };
    /// What is over the limit goes, the one that was longest unused first.
    void giveBack(const Identifier& container, Holder enumerator, Keep keep);

    /// As long as a container is watched, the last enumerator that is given back for it stays, since what it sees is
    /// what the watch is told of.
    void addWatch(const Identifier& container);
    void removeWatch(const Identifier& container);

    std::size_t idle() const;

private:
    struct Kept {
        Identifier container;
        Holder enumerator;
    };
    using List = std::list<Kept>;
    /// Moves what has to go to `gone`, which is taken apart without the lock.
    void trim(List& gone);
    bool isOnlyOneOfWatched(List::const_iterator kept) const;

    hostframework::ProviderExtension& provider_;
    mutable std::mutex mutex_;
    List kept_;  ///< the one used last first
    std::map<Identifier, std::size_t> watches_;
};

}  // namespace tarnwell::host
