#pragma once

#include <memory>
#include <string>

#include "session/Session.h"

namespace tarnwell::host {

/// What an application in a sandbox sees of the host: its own library, and nothing else. Whatever is not in it is
/// answered as what is not there: by identifier, by path, as a container, in a search. What concerns the whole device
/// (the status, a look at the applications, cleaning trashes) and what would have the host read or move things in the
/// application's stead (importing by path, restoring to a remembered folder) is refused with EACCES.
class ConfinedSession : public session::Session {
public:
    /// Says which library that is ("#" and the bundle identifier); nothing as long as the application has none. Asked
    /// in each request, since libraries come and go. Any thread.
    using Library = std::function<std::optional<session::ItemIdentifier>()>;
    ConfinedSession(std::shared_ptr<session::Session> session, Library library);

    Each<session::Item> items(const std::vector<session::ItemIdentifier>& identifiers) override;
    Each<session::ItemIdentifier> identifiersAtPaths(const std::vector<std::string>& paths,
                                                     session::PathUse use) override;
    Result<session::Page> enumerate(const session::ItemIdentifier& container,
                                    const std::optional<Bytes>& page) override;
    Result<std::optional<Bytes>> currentAnchor(const session::ItemIdentifier& container) override;
    Result<session::ChangeBatch> changes(const session::ItemIdentifier& container, const Bytes& anchor) override;
    Result<std::unique_ptr<session::Watch>> watch(const session::ItemIdentifier& container,
                                                  std::function<void()> changed) override;
    Result<Descriptor> open(const session::ItemIdentifier& item, Access access) override;
    Each<session::Item> import(const std::vector<std::string>& paths, const session::ItemIdentifier& parent,
                               session::JobControl& job) override;
    Result<session::Item> makeFolder(const std::string& name, const session::ItemIdentifier& parent) override;
    Result<session::Item> rename(const session::ItemIdentifier& item, const std::string& name) override;
    Each<session::Item> move(const std::vector<session::ItemIdentifier>& items, const session::ItemIdentifier& parent,
                             const std::optional<std::string>& name, session::JobControl& job) override;
    Each<session::Item> trash(const std::vector<session::ItemIdentifier>& items, session::JobControl& job) override;
    /// Without a parent, to the top of the library: what a file says of where it came from, its application can write.
    Each<session::Item> restore(const std::vector<session::ItemIdentifier>& items,
                                const std::optional<session::ItemIdentifier>& parent,
                                session::JobControl& job) override;
    Each<session::Removed> remove(const std::vector<session::ItemIdentifier>& items, session::JobControl& job) override;
    Result<session::CleanedTrash> cleanTrash(Date olderThan) override;
    Result<session::Item> setTags(const session::ItemIdentifier& item, const std::vector<std::string>& labels) override;
    Result<session::Item> setRank(const session::ItemIdentifier& item,
                                  const std::optional<std::uint64_t>& rank) override;
    Result<session::Item> setLastUsed(const session::ItemIdentifier& item, const std::optional<Date>& date) override;
    Each<Bytes> thumbnails(const std::vector<session::ItemIdentifier>& items, unsigned side) override;
    Result<std::vector<session::Application>> applications() override;
    Result<session::Refreshed> refresh() override;
    Result<session::Item> defaultContainer(const std::string& bundleIdentifier) override;
    /// A query may name no place by "in:".
    Result<session::SearchResult> search(const session::SearchRequest& request,
                                         const std::function<void(std::uint64_t)>& progress) override;
    Result<session::Status> status() override;

private:
    /// Fails as if there were no such item.
    Result<void> check(const session::ItemIdentifier& identifier);
    /// Does to those that are its own what `work` does, in the order of all.
    template <typename T, typename Work>
    Each<T> forOwn(const std::vector<session::ItemIdentifier>& identifiers, Work work);

    const std::shared_ptr<session::Session> session_;
    const Library library_;
};

}  // namespace tarnwell::host
