#include "bus/server/Clients.h"

#include <malloc.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "bus/server/Credentials.h"
#include "bus/server/Replies.h"

namespace tarnwell::bus {

namespace {

/// What the requests of one client may hold while they wait, and those of all before only small ones are taken.
constexpr std::size_t kMostBytes = 16 * 1024 * 1024, kMostBytesOfAll = 128 * 1024 * 1024;
constexpr std::size_t kSmallRequest = 64 * 1024;
/// After so many clients went, what they needed is given back to the system, once it has been quiet for a moment.
constexpr std::size_t kMostGone = 50;
constexpr auto kQuiet = std::chrono::seconds(1);

}  // namespace

Clients::Clients(Machinery& machinery, Server::Admit admit, log::Log& log)
    : machinery_(machinery),
      admit_(std::move(admit)),
      log_(log),
      pace_(
          [this](const std::string& name) {
              Client* client = named(name);
              return client == nullptr ? nullptr : &client->pacing;
          },
          [this](const std::string& name) {
              // What it asked meanwhile is answered after this, and what changes then is told anew.
              for (const auto& [container, entry] : named(name)->watches) entry->isSignalled = false;
          }) {}

Client* Clients::asking(sd_bus_message* call) {
    const char* sender = sd_bus_message_get_sender(call);
    if (sender == nullptr || isEnding_) {
        sd_bus_reply_method_errorf(call, SD_BUS_ERROR_NO_REPLY, "the service is ending");
        return nullptr;
    }
    if (Client* client = named(sender)) {
        if (client->state == Client::State::refused) {
            if (!Pace::isCutOff(client->pacing)) told(sender, sendRefusal(call, *client->refusal));
            return nullptr;
        }
        if (client->pacing.state != Pacing::State::behind) {
            // It goes on, so it is told anew.
            for (const auto& [container, entry] : client->watches) entry->isSignalled = false;
        }
        if (client->requests < machinery_.options.limits.requests) return client;
        refuse(call, "too many requests at a time; wait for some answers");
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
    machinery_.workers->add(client->lane, [this, peer](const Workers::Turn&) {
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
    *client->hasGone = true;
    client->pacing.turn.end();
    for (const auto& [path, job] : client->jobs) {
        job->control->cancel();
        job->waiting = sd_bus_message_unref(job->waiting);
    }
    // On the lanes, since what was asked before still uses the session, and ending it may take a while.
    machinery_.workers->add(client->lane, [this, client](const Workers::Turn&) {
        for (const auto& [container, entry] : client->watches) entry->watch.reset();
        machinery_.jobWorkers->add(client->jobLane, [client](const Workers::Turn&) { client->session.reset(); });
    });
    // Each finds that nobody waits for it any more, and lets go of its message.
    for (auto& request : std::exchange(client->waiting, {})) request();
    if (++gone_ == kMostGone) giveBackMemory(gone_);
}

/// The allocator keeps what was freed, in each of the threads' parts of it, for as long as the process lives.
void Clients::giveBackMemory(std::size_t goneBefore) {
    machinery_.loop->postLater(kQuiet, [this, goneBefore](sd_bus* connection) {
        if (connection == nullptr) return;
        if (gone_ != goneBefore) return giveBackMemory(gone_);
        gone_ = 0;
        machinery_.jobWorkers->add(Workers::makeLane(), [](const Workers::Turn&) { ::malloc_trim(0); });
    });
}

void Clients::end() {
    isEnding_ = true;
    while (!clients_.empty()) {
        const std::string name = clients_.begin()->first;
        forget(name);
    }
}

bool Clients::begin(sd_bus_message* call, Client& client, std::size_t size, Start start) {
    if (client.requestBytes + size > kMostBytes || (bytes_ + size > kMostBytesOfAll && size > kSmallRequest)) {
        refuse(call, "too much is asked at a time; wait for some answers");
        return false;
    }
    sd_bus_message* bare = withoutContents(call);
    if (bare == nullptr) {
        refuse(call, "there is no memory for another request");
        return false;
    }
    ++client.requests;
    client.requestBytes += size;
    bytes_ += size;
    const std::uint64_t id = ++lastCall_;
    const std::string name = sd_bus_message_get_sender(call);
    calls_.emplace(id, Call{bare, name, size});
    auto go = [this, id, name, start = std::move(start)]() mutable {
        Client* known = named(name);
        if (known == nullptr) return drop(id);
        if (known->state == Client::State::refused) {
            told(name, sendRefusal(calls_.at(id).message, *known->refusal));
            return drop(id);
        }
        start(*known, id);
    };
    if (client.state == Client::State::asking) {
        client.waiting.push_back(std::move(go));
    } else {
        go();
    }
    return true;
}

void Clients::finish(std::uint64_t call, Answer answer, Workers::Turn turn) {
    const auto found = calls_.find(call);
    if (found == calls_.end()) return;
    const std::string name = found->second.client;
    const Sent sent = sendAnswer(found->second.message, answer);
    drop(call);
    pace_.answered(*machinery_.loop, machinery_.connection, name, sent, std::move(turn));
}

void Clients::refuse(sd_bus_message* call, const char* message) {
    const std::string name = sd_bus_message_get_sender(call);
    const Client* client = named(name);
    if (client == nullptr || !Pace::isCutOff(client->pacing)) told(name, sendLimit(call, message));
}

void Clients::misused(sd_bus_message* call, int error) {
    const std::string name = sd_bus_message_get_sender(call);
    const Client* client = named(name);
    if (client == nullptr || !Pace::isCutOff(client->pacing)) told(name, sendMisuse(call, error));
}

void Clients::told(const std::string& name, const Sent& sent) {
    pace_.told(*machinery_.loop, machinery_.connection, name, sent);
}

bool Clients::isBehind(const std::string& name) {
    const Client* client = named(name);
    return client != nullptr && client->pacing.state == Pacing::State::behind;
}

void Clients::drop(std::uint64_t call) {
    const auto found = calls_.find(call);
    if (found == calls_.end()) return;
    bytes_ -= found->second.size;
    if (Client* client = named(found->second.client)) {
        --client->requests;
        client->requestBytes -= found->second.size;
    }
    sd_bus_message_unref(found->second.message);
    calls_.erase(found);
}

void Clients::request(sd_bus_message* call, std::size_t size, Effect effect, Work work) {
    Client* client = asking(call);
    if (client == nullptr) return;
    begin(call, *client, size, [this, effect, work = std::move(work)](Client& known, std::uint64_t id) mutable {
        auto asked = [this, id, effect, session = known.session, hasGone = known.hasGone,
                      work = std::move(work)](Workers::Turn turn) mutable {
            // Who has gone reads no answer; what it wanted done is done.
            const bool isInVain = effect == Effect::none && *hasGone;
            Answer answer = isInVain ? Answer(failure(posixError(ECONNRESET))) : work(*session);
            work = {};
            session.reset();
            machinery_.loop->post([this, id, answer = std::move(answer), turn = std::move(turn)](sd_bus*) mutable {
                finish(id, std::move(answer), std::move(turn));
            });
        };
        machinery_.workers->add(known.lane, std::move(asked));
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
