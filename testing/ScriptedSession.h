#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "session/Session.h"

namespace tarnwell::testing {

/// A session whose answers a test writes down, for what carries requests and answers. Any thread may call it.
class ScriptedSession : public session::Session {
public:
    /// Every request as one line: its name and arguments.
    std::vector<std::string> requests() const;

    /// Called in each request with its name, before the answer: to wait, or to fail the test.
    std::function<void(const std::string&)> onRequest;

    // What is answered.
    Each<session::Item> itemOutcomes;
    Each<session::ItemIdentifier> identifierOutcomes;
    Each<session::Removed> removedOutcomes;
    Each<Bytes> pictureOutcomes;
    Result<session::Page> page;
    Result<std::optional<Bytes>> anchor;
    Result<session::ChangeBatch> batch;
    std::function<Result<Descriptor>()> opens;
    Result<session::Item> item;
    Result<session::CleanedTrash> cleaned;
    Result<std::vector<session::Application>> applicationList;
    Result<session::Refreshed> refreshed;
    Result<session::SearchResult> found;
    Result<session::Status> state;
    Result<void> watching;
    std::vector<session::JobProgress> progress;  ///< told by each job

    /// Tells whoever watches the container.
    void change(const std::string& container);
    std::size_t watches() const;

    Each<session::Item> items(const std::vector<session::ItemIdentifier>& identifiers) override;
    Each<session::ItemIdentifier> identifiersAtPaths(const std::vector<std::string>& paths,
                                                     session::PathUse use) override;
    Result<session::Page> enumerate(const session::ItemIdentifier& container,
                                    const std::optional<Bytes>& token) override;
    Result<std::optional<Bytes>> currentAnchor(const session::ItemIdentifier& container) override;
    Result<session::ChangeBatch> changes(const session::ItemIdentifier& container, const Bytes& since) override;
    Result<std::unique_ptr<session::Watch>> watch(const session::ItemIdentifier& container,
                                                  std::function<void()> changed) override;
    Result<Descriptor> open(const session::ItemIdentifier& identifier, Access access) override;
    Each<session::Item> import(const std::vector<std::string>& paths, const session::ItemIdentifier& parent,
                               session::JobControl& job) override;
    Result<session::Item> makeFolder(const std::string& name, const session::ItemIdentifier& parent) override;
    Result<session::Item> rename(const session::ItemIdentifier& identifier, const std::string& name) override;
    Each<session::Item> move(const std::vector<session::ItemIdentifier>& identifiers,
                             const session::ItemIdentifier& parent, const std::optional<std::string>& name,
                             session::JobControl& job) override;
    Each<session::Item> trash(const std::vector<session::ItemIdentifier>& identifiers,
                              session::JobControl& job) override;
    Each<session::Item> restore(const std::vector<session::ItemIdentifier>& identifiers,
                                const std::optional<session::ItemIdentifier>& parent,
                                session::JobControl& job) override;
    Each<session::Removed> remove(const std::vector<session::ItemIdentifier>& identifiers,
                                  session::JobControl& job) override;
    Result<session::CleanedTrash> cleanTrash(Date olderThan) override;
    Result<session::Item> setTags(const session::ItemIdentifier& identifier,
                                  const std::vector<std::string>& labels) override;
    Result<session::Item> setRank(const session::ItemIdentifier& identifier,
                                  const std::optional<std::uint64_t>& rank) override;
    Result<session::Item> setLastUsed(const session::ItemIdentifier& identifier,
                                      const std::optional<Date>& date) override;
    Each<Bytes> thumbnails(const std::vector<session::ItemIdentifier>& identifiers, unsigned side) override;
    Result<std::vector<session::Application>> applications() override;
    Result<session::Refreshed> refresh() override;
    Result<session::Item> defaultContainer(const std::string& bundleIdentifier) override;
    Result<session::SearchResult> search(const session::SearchRequest& request,
                                         const std::function<void(std::uint64_t)>& told) override;
    Result<session::Status> status() override;

private:
    class Watched;
    void note(const std::string& name, std::vector<std::string> arguments);
    Each<session::Item> job(const std::string& name, std::vector<std::string> arguments, session::JobControl& control);

    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    std::uint64_t lastWatch_ = 0;
    std::map<std::uint64_t, std::pair<std::string, std::function<void()>>> watches_;
};

/// An item in which everything is set, to values that differ.
session::Item fullItem();

}  // namespace tarnwell::testing
