#pragma once

#include <memory>

#include "platform/base/Result.h"
#include "session/Session.h"

namespace tarnwell::bus {

class Calls;

/// What the running service says of itself.
struct ServiceInfo {
    std::uint32_t interfaceVersion = 0;
    std::string programVersion;
    std::string storageRoot;     ///< real path
    std::string stateDirectory;  ///< real path
};

/// A client of the running service. When the service is started anew, later requests reach the new one, and watches
/// are set up there again; a request that was under way fails with ECONNRESET. Any thread may call any operation but
/// that of the watches' callbacks.
class BusSession : public session::Session {
public:
    /// Whether the bus may start the service.
    enum class Start { ifNeeded, never };

    /// How pages and changes travel: packed into bytes, or value by value, as programs without this library ask for
    /// them, and as services know that are older than the packing.
    enum class Form { packed, plain };

    /// To the session's bus, or that of a D-Bus address. Fails with ECONNREFUSED where no service runs, and with
    /// another POSIX error where there is no bus.
    static Result<std::unique_ptr<BusSession>> connect(Start start, const std::string& busAddress = {},
                                                       Form form = Form::packed);
    /// No request may be under way.
    ~BusSession() override;

    /// What the service said of itself when this connected.
    const ServiceInfo& service() const { return service_; }

    /// Requests that are under way, and all later ones, fail soon with ECANCELED. Any thread.
    void giveUp();

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
    Result<session::SearchResult> search(const session::SearchRequest& request,
                                         const std::function<void(std::uint64_t)>& progress) override;
    Result<session::Status> status() override;

private:
    BusSession(std::shared_ptr<Calls> calls, ServiceInfo service, Form form);
    std::shared_ptr<Calls> calls_;
    ServiceInfo service_;
    Form form_;
};

}  // namespace tarnwell::bus
