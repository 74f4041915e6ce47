#include "bus/server/Clients.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <utility>

#include "bus/server/Credentials.h"
#include "bus/server/Replies.h"

namespace tarnwell::bus {

Client* Clients::asking(sd_bus_message* call) {
    const char* sender = sd_bus_message_get_sender(call);
    if (sender == nullptr || isEnding_) {
        sd_bus_reply_method_errorf(call, SD_BUS_ERROR_NO_REPLY, "the service is ending");
        return nullptr;
    }
    if (Client* client = named(sender)) {
        if (client->state == Client::State::refused) {
            sendRefusal(call, *client->refusal);
            return nullptr;
        }
        // It goes on, so it is told anew.
        for (const auto& [container, entry] : client->watches) entry->isSignalled = false;
        if (client->requests < machinery_.options.limits.requests) return client;
        sendLimit(call, "too many requests at a time; wait for some answers");
        return nullptr;
    }
    if (clients_.size() >= machinery_.options.clients) {
        sendLimit(call, "the service has too many clients");
        return nullptr;
    }
    const auto client = clients_.emplace(sender, std::make_shared<Client>()).first->second;
    askForCredentials(machinery_.connection, sender, [this, name = std::string(sender)](const Result<Peer>& peer) {
        if (peer) {
            admit(*peer);
        } else {
            admitted(name, failure(peer.error()));
        }
    });
    return client.get();
}

Client* Clients::named(const std::string& name) {
    const auto found = clients_.find(name);
    return found == clients_.end() ? nullptr : found->second.get();
}

void Clients::admit(const Peer& peer) {
    Client* client = named(peer.name);
    if (client == nullptr) return;
    machinery_.workers->add(client->lane, [this, peer] {
        machinery_.loop->post(
            [this, name = peer.name, session = admit_(peer)](sd_bus*) mutable { admitted(name, std::move(session)); });
    });
}

void Clients::admitted(const std::string& name, Result<std::shared_ptr<session::Session>> session) {
    Client* client = named(name);
    if (client == nullptr) return;
    if (session) {
        client->state = Client::State::admitted;
        client->session = std::move(*session);
    } else {
        client->state = Client::State::refused;
        client->refusal = session.error();
        log_.write(log::Level::info, "refused " + name + ": " + describe(session.error()));
    }
    for (auto& request : std::exchange(client->waiting, {})) request();
    if (client->state != Client::State::refused) return;
    client->jobs.clear();
    client->watches.clear();
}

void Clients::forget(const std::string& name) {
    const auto found = clients_.find(name);
    if (found == clients_.end()) return;
    const std::shared_ptr<Client> client = std::move(found->second);
    clients_.erase(found);
    for (const auto& [path, job] : client->jobs) {
        job->control->cancel();
        for (sd_bus_message* call : job->waiting) sd_bus_message_unref(call);
        job->waiting.clear();
    }
    // On the lanes, since what was asked before still uses the session, and ending it may take a while.
    machinery_.workers->add(client->lane, [this, client] {
        for (const auto& [container, entry] : client->watches) entry->watch.reset();
        machinery_.jobWorkers->add(client->jobLane, [client] { client->session.reset(); });
    });
    // Each finds that nobody waits for it any more, and lets go of its message.
    for (auto& request : std::exchange(client->waiting, {})) request();
}

void Clients::end() {
    isEnding_ = true;
    while (!clients_.empty()) {
        const std::string name = clients_.begin()->first;
        forget(name);
    }
}

void Clients::begin(sd_bus_message* call, Client& client, Start start) {
    ++client.requests;
    const std::uint64_t id = ++lastCall_;
    const std::string name = sd_bus_message_get_sender(call);
    calls_.emplace(id, Call{sd_bus_message_ref(call), name});
    auto go = [this, id, name, start = std::move(start)]() mutable {
        Client* known = named(name);
        if (known == nullptr) return drop(id);
        if (known->state == Client::State::refused) {
            sendRefusal(calls_.at(id).message, *known->refusal);
            return drop(id);
        }
        start(*known, id);
    };
    if (client.state == Client::State::asking) {
        client.waiting.push_back(std::move(go));
    } else {
        go();
    }
}

void Clients::finish(std::uint64_t call, Answer answer) {
    const auto found = calls_.find(call);
    if (found == calls_.end()) return;
    sendAnswer(found->second.message, answer);
    drop(call);
}

void Clients::drop(std::uint64_t call) {
    const auto found = calls_.find(call);
    if (found == calls_.end()) return;
    if (Client* client = named(found->second.client)) --client->requests;
    sd_bus_message_unref(found->second.message);
    calls_.erase(found);
}

void Clients::request(sd_bus_message* call, Work work) {
    Client* client = asking(call);
    if (client == nullptr) return;
    begin(call, *client, [this, work = std::move(work)](Client& known, std::uint64_t id) mutable {
        machinery_.workers->add(known.lane, [this, id, session = known.session, work = std::move(work)]() mutable {
            Answer answer = work(*session);
            work = {};
            session.reset();
            machinery_.loop->post(
                [this, id, answer = std::move(answer)](sd_bus*) mutable { finish(id, std::move(answer)); });
        });
    });
}

Server::Counts Clients::counts() const {
    Server::Counts counts;
    counts.clients = clients_.size();
    counts.requests = calls_.size();
    for (const auto& [name, client] : clients_) {
        counts.jobs += client->jobs.size();
        counts.watches += client->watches.size();
    }
    return counts;
}

}  // namespace tarnwell::bus
