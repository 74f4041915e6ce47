#include "bus/server/Watches.h"

#include <systemd/sd-bus.h>

#include "bus/server/Replies.h"
#include "bus/wire/Names.h"

namespace tarnwell::bus {
namespace {

Answer nothing() {
    return WriteAnswer([](Writer&) {});
}

}  // namespace

void Watches::watch(sd_bus_message* call, const std::string& container) {
    Client* client = clients_.asking(call);
    if (client == nullptr) return;
    const bool isNew = !client->watches.contains(container);
    if (isNew && client->watches.size() >= machinery_.options.limits.watches) {
        return clients_.refuse(call, "too many containers are watched; end some with Unwatch");
    }
    if (isNew) {
        auto added = std::make_shared<WatchEntry>();
        added->container = container;
        client->watches.emplace(container, std::move(added));
    }
    const std::string name = sd_bus_message_get_sender(call);
    const auto start = [this, name, container](Client& watching, std::uint64_t id) {
        const auto found = watching.watches.find(container);
        if (found == watching.watches.end()) return clients_.finish(id, nothing());  // by an Unwatch
        machinery_.workers->add(
            watching.lane, [this, id, name, entry = found->second, session = watching.session](const Workers::Turn&) {
                machinery_.loop->post([this, id, name, entry, answer = begin(*session, name, entry)](sd_bus*) mutable {
                    Client* failed = answer ? nullptr : clients_.named(name);
                    if (failed != nullptr) failed->watches.erase(entry->container);
                    clients_.finish(id, std::move(answer));
                });
            });
    };
    if (!clients_.begin(call, *client, container.size(), start) && isNew) client->watches.erase(container);
}

/// On the client's lane.
Answer Watches::begin(session::Session& session, const std::string& name, const std::shared_ptr<WatchEntry>& entry) {
    if (entry->watch) return nothing();
    const auto changed = [this, name, weak = std::weak_ptr(entry)] {
        const auto watched = weak.lock();
        if (!watched || watched->isSignalled.exchange(true)) return;
        machinery_.loop->post([this, name, container = watched->container](sd_bus*) { tell(name, container); });
    };
    auto watch = session.watch(entry->container, changed);
    if (!watch) return failure(watch.error());
    entry->watch = std::move(*watch);
    return nothing();
}

void Watches::tell(const std::string& name, const std::string& container) {
    Client* client = clients_.named(name);
    if (client == nullptr || !client->watches.contains(container)) return;
    clients_.told(name, sendSignal(machinery_.connection, name, kObjectPath, kInterface, "ContainerChanged",
                                   [&](Writer& writer) { writer.string(container); }));
}

void Watches::unwatch(sd_bus_message* call, const std::string& container) {
    Client* client = clients_.asking(call);
    if (client == nullptr) return;
    clients_.begin(call, *client, container.size(), [this, container](Client& watching, std::uint64_t id) {
        const auto found = watching.watches.find(container);
        if (found == watching.watches.end()) return clients_.finish(id, nothing());
        const auto entry = std::move(found->second);
        watching.watches.erase(found);
        machinery_.workers->add(watching.lane, [this, id, entry](const Workers::Turn&) {
            entry->watch.reset();
            machinery_.loop->post([this, id](sd_bus*) { clients_.finish(id, nothing()); });
        });
    });
}

}  // namespace tarnwell::bus
