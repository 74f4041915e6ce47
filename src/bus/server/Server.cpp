#include "bus/server/Server.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <list>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "bus/server/Client.h"
#include "bus/wire/Dictionary.h"
#include "bus/wire/Errors.h"
#include "bus/wire/Loop.h"
#include "bus/wire/Names.h"
#include "bus/wire/Records.h"

namespace tarnwell::bus {
namespace {

using Clock = std::chrono::steady_clock;

/// Between two tellings of a job's progress.
constexpr auto kProgressPause = std::chrono::milliseconds(100);

/// The methods and signals of one interface as libsystemd wants them.
class Table {
public:
    Table() {
        sd_bus_vtable start{};
        std::memset(&start, 0, sizeof start);
        start.type = _SD_BUS_VTABLE_START;
        start.x.start.element_size = sizeof(sd_bus_vtable);
        start.x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
        start.x.start.vtable_format_reference = &sd_bus_object_vtable_format;
        entries_.push_back(start);
    }

    void method(const Signature& signature, sd_bus_message_handler_t handler) {
        sd_bus_vtable entry;
        std::memset(&entry, 0, sizeof entry);
        entry.type = _SD_BUS_VTABLE_METHOD;
        entry.flags = SD_BUS_VTABLE_UNPRIVILEGED;
        entry.x.method.member = signature.name;
        entry.x.method.signature = signature.in;
        entry.x.method.result = signature.out;
        entry.x.method.handler = handler;
        entry.x.method.names = namesOf(signature);
        entries_.push_back(entry);
    }
    void signal(const Signature& signature) {
        sd_bus_vtable entry;
        std::memset(&entry, 0, sizeof entry);
        entry.type = _SD_BUS_VTABLE_SIGNAL;
        entry.x.signal.member = signature.name;
        entry.x.signal.signature = signature.out;
        entry.x.signal.names = namesOf(signature);
        entries_.push_back(entry);
    }
    const sd_bus_vtable* finish() {
        sd_bus_vtable end;
        std::memset(&end, 0, sizeof end);
        end.type = _SD_BUS_VTABLE_END;
        entries_.push_back(end);
        return entries_.data();
    }

private:
    /// Those of the arguments and of the results, each with a NUL behind it.
    const char* namesOf(const Signature& signature) {
        std::string& names = names_.emplace_back();
        for (const char* list : {signature.inNames, signature.outNames}) {
            if (*list == '\0') continue;
            names += list;
            names += ' ';
        }
        std::ranges::replace(names, ' ', '\0');
        return names.c_str();
    }

    std::vector<sd_bus_vtable> entries_;
    std::list<std::string> names_;
};

Answer nothing() {
    return WriteAnswer([](Writer&) {});
}

void sendAnswer(sd_bus_message* call, Answer& answer) {
    sd_bus_message* reply = nullptr;
    int outcome = 0;
    if (answer) {
        outcome = sd_bus_message_new_method_return(call, &reply);
        Writer writer(reply);
        if (outcome >= 0) (*answer)(writer);
        if (outcome >= 0) outcome = writer.error();
        if (outcome >= 0) outcome = sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        if (outcome >= 0) return;
        // What is too large for a message, for one.
        answer = failure(posixError(-outcome, "the answer could not be written"));
    }
    const Error& error = answer.error();
    const bool isRefusal = error.is(ErrorDomain::posix, EACCES) && error.userInfo.contains("refused");
    const std::string name = isRefusal ? kAccessDenied : errorName(error);
    const std::string message = errorMessage(error);
    sd_bus_reply_method_errorf(call, name.c_str(), "%s", message.c_str());
}

}  // namespace

class Server::Impl {
public:
    Impl(Options options, Admit admit, log::Log& log)
        : options_(std::move(options)),
          admit_(std::move(admit)),
          log_(log),
          workers_(std::make_unique<Workers>(options_.workers)),
          jobWorkers_(std::make_unique<Workers>(options_.jobWorkers)) {
        for (const Method& method : methods()) {
            methods_.emplace(method.signature.name, &method);
            hostTable_.method(method.signature, called);
        }
        for (const JobMethod& method : jobMethods()) {
            jobMethods_.emplace(method.signature.name, &method);
            hostTable_.method(method.signature, calledJob);
        }
        hostTable_.method({"Info", "", "", "usayay", "interfaceVersion programVersion storageRoot stateDirectory"},
                          calledInfo);
        hostTable_.method({"Watch", "s", "container", "", ""}, calledWatch);
        hostTable_.method({"Unwatch", "s", "container", "", ""}, calledUnwatch);
        hostTable_.signal({"ContainerChanged", "", "", "s", "container"});
        jobTable_.method({"Result", "", "", "aa{sv}", "outcomes"}, calledResult);
        jobTable_.method({"Cancel", "", "", "", ""}, calledCancel);
        jobTable_.signal({"Progress", "", "", "tttatat", "index bytesDone itemsDone bytesTotal itemsTotal"});
    }

    Result<void> start() {
        auto loop = Loop::connect(
            options_.busAddress, [this](sd_bus* connection) { return begin(connection); },
            [this] {
                if (options_.onDisconnect) options_.onDisconnect();
            });
        if (!loop) return failure(loop.error());
        loop_ = std::move(*loop);
        loop_->start();
        return {};
    }

    ~Impl() {
        if (!loop_) return;
        runOnLoop([this](sd_bus* connection) {
            isEnding_ = true;
            if (connection != nullptr) sd_bus_release_name(connection, kServiceName);
            while (!clients_.empty()) forget(clients_.begin()->first);
        });
        // What they finish is posted, and answered before the loop ends. The lanes of requests end first: the sessions
        // go on those of the jobs.
        workers_.reset();
        jobWorkers_.reset();
        loop_.reset();
    }

    Counts counts() {
        Counts counts;
        runOnLoop([&](sd_bus*) {
            counts.clients = clients_.size();
            counts.requests = calls_.size();
            for (const auto& [name, client] : clients_) {
                counts.jobs += client->jobs.size();
                counts.watches += client->watches.size();
            }
        });
        return counts;
    }

private:
    /// Waits until it is done. Not on the loop's thread.
    void runOnLoop(const std::function<void(sd_bus*)>& task) {
        std::promise<void> done;
        loop_->post([&](sd_bus* connection) {
            task(connection);
            done.set_value();
        });
        done.get_future().wait();
    }

    Result<void> begin(sd_bus* connection) {
        connection_ = connection;
        // Without a slot they live as long as the connection.
        int outcome = sd_bus_add_object_vtable(connection, nullptr, kObjectPath, kInterface, hostTable_.finish(), this);
        if (outcome >= 0) {
            outcome = sd_bus_add_fallback_vtable(connection, nullptr, kJobPrefix, kJobInterface, jobTable_.finish(),
                                                 findJob, this);
        }
        if (outcome >= 0) {
            // The names of connections that ended.
            const std::string rule =
                "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                "member='NameOwnerChanged',arg2=''";
            outcome = sd_bus_add_match(connection, nullptr, rule.c_str(), ownerChanged, this);
        }
        if (outcome >= 0) outcome = sd_bus_request_name(connection, kServiceName, 0);
        if (outcome == -EEXIST) {
            return failure(posixError(EEXIST, std::string("another process is the service already (") + kServiceName +
                                                  " on the session bus)"));
        }
        if (outcome < 0) return failure(posixError(-outcome, "the session bus cannot be used"));
        return {};
    }

    // What the connection calls back. Each returns a negative errno where the message is none of ours.

    static Impl& self(void* data) { return *static_cast<Impl*>(data); }

    static int called(sd_bus_message* call, void* data, sd_bus_error*) {
        Impl& server = self(data);
        Reader reader(call);
        Work work = server.methods_.at(sd_bus_message_get_member(call))->prepare(reader);
        if (reader.error() < 0) return server.refuseArguments(call, reader.error());
        server.request(call, std::move(work));
        return 1;
    }

    static int calledJob(sd_bus_message* call, void* data, sd_bus_error*) {
        Impl& server = self(data);
        Reader reader(call);
        JobWork work = server.jobMethods_.at(sd_bus_message_get_member(call))->prepare(reader);
        if (reader.error() < 0) return server.refuseArguments(call, reader.error());
        server.startJob(call, std::move(work));
        return 1;
    }

    static int calledInfo(sd_bus_message* call, void* data, sd_bus_error*) {
        Impl& server = self(data);
        server.request(call, [&options = server.options_](session::Session&) -> Answer {
            return WriteAnswer([&options](Writer& writer) {
                writer.uint32(kInterfaceVersion).string(options.programVersion);
                writer.bytes(options.storageRoot).bytes(options.stateDirectory);
            });
        });
        return 1;
    }

    static int calledWatch(sd_bus_message* call, void* data, sd_bus_error*) {
        Impl& server = self(data);
        Reader reader(call);
        std::string container = reader.string();
        if (reader.error() < 0) return server.refuseArguments(call, reader.error());
        server.watch(call, std::move(container));
        return 1;
    }

    static int calledUnwatch(sd_bus_message* call, void* data, sd_bus_error*) {
        Impl& server = self(data);
        Reader reader(call);
        const std::string container = reader.string();
        if (reader.error() < 0) return server.refuseArguments(call, reader.error());
        server.unwatch(call, container);
        return 1;
    }

    static int calledResult(sd_bus_message* call, void* data, sd_bus_error*) { return self(data).jobResult(call); }
    static int calledCancel(sd_bus_message* call, void* data, sd_bus_error*) { return self(data).cancelJob(call); }

    /// A job is there for the client that started it, and for nobody else.
    static int findJob(sd_bus*, const char* path, const char*, void* data, void** found, sd_bus_error*) {
        Impl& server = self(data);
        sd_bus_message* call = sd_bus_get_current_message(server.connection_);
        const char* sender = call == nullptr ? nullptr : sd_bus_message_get_sender(call);
        if (sender == nullptr || !server.jobOf(sender, path)) return 0;
        *found = data;
        return 1;
    }

    static int ownerChanged(sd_bus_message* signal, void* data, sd_bus_error*) {
        Reader reader(signal);
        const std::string name = reader.string();
        if (reader.error() == 0) self(data).forget(name);
        return 0;
    }

    int refuseArguments(sd_bus_message* call, int error) {
        Answer answer = failure(error == -E2BIG || error == -EMSGSIZE ? tooMuch() : posixError(-error));
        if (error == -E2BIG || error == -EMSGSIZE) {
            sd_bus_reply_method_errorf(call, kLimitsExceeded, "%s", errorMessage(answer.error()).c_str());
        } else {
            sd_bus_reply_method_errorf(call, SD_BUS_ERROR_INVALID_ARGS, "the arguments are not what was expected");
        }
        return 1;
    }

    static Error tooMuch() { return posixError(E2BIG, "one request may name a thousand things, each up to 64 KiB"); }

    // Clients

    /// The client that sent the message, if it may ask anything more; else the caller was told why not.
    Client* clientOf(sd_bus_message* call) {
        const char* sender = sd_bus_message_get_sender(call);
        if (sender == nullptr || isEnding_) {
            sd_bus_reply_method_errorf(call, SD_BUS_ERROR_NO_REPLY, "the service is ending");
            return nullptr;
        }
        const auto known = clients_.find(sender);
        if (known != clients_.end()) {
            Client& client = *known->second;
            if (client.state == Client::State::refused) {
                Answer refusal = failure(*client.refusal);
                sendAnswer(call, refusal);
                return nullptr;
            }
            // It goes on, so it is told anew.
            for (const auto& [container, entry] : client.watches) entry->isSignalled = false;
            if (client.requests < options_.limits.requests) return &client;
            refuseLimit(call, "too many requests at a time; wait for some answers");
            return nullptr;
        }
        if (clients_.size() >= options_.clients) {
            refuseLimit(call, "the service has too many clients");
            return nullptr;
        }
        auto& client = clients_.emplace(sender, std::make_unique<Client>()).first->second;
        identify(sender);
        return client.get();
    }

    static void refuseLimit(sd_bus_message* call, const char* message) {
        sd_bus_reply_method_errorf(call, kLimitsExceeded, "%s", message);
    }

    Client* clientNamed(const std::string& name) {
        const auto found = clients_.find(name);
        return found == clients_.end() ? nullptr : found->second.get();
    }

    struct Identification {
        Impl* server;
        std::string name;
    };

    void identify(const std::string& name) {
        auto* question = new Identification{this, name};
        const int sent = sd_bus_call_method_async(connection_, nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "GetConnectionCredentials", identified,
                                                  question, "s", name.c_str());
        if (sent >= 0) return;
        delete question;
        admitted(name, failure(posixError(-sent)));
    }

    static int identified(sd_bus_message* reply, void* data, sd_bus_error*) {
        const std::unique_ptr<Identification> question(static_cast<Identification*>(data));
        Impl& server = *question->server;
        Peer peer{question->name, 0, 0, std::nullopt};
        bool hasUser = false;
        Reader reader(reply);
        if (sd_bus_message_get_error(reply) != nullptr) {
            // Mostly gone meanwhile, and then forgotten already.
            server.admitted(peer.name, failure(posixError(EACCES, "the bus does not say who asks")));
            return 0;
        }
        readDictionary(reader, [&](std::string_view key, std::string_view contents) {
            if (key == "ProcessID" && contents == "u") return peer.pid = static_cast<pid_t>(reader.uint32()), true;
            if (key == "UnixUserID" && contents == "u") return peer.uid = reader.uint32(), hasUser = true;
            if (key != "LinuxSecurityLabel" || contents != "ay") return false;
            std::string label = reader.text();
            // The bus gives it with the NUL at its end.
            if (!label.empty() && label.back() == '\0') label.pop_back();
            peer.securityLabel = std::move(label);
            return true;
        });
        if (reader.error() < 0 || !hasUser || peer.pid <= 0) {
            server.admitted(peer.name, failure(posixError(EACCES, "the bus does not say who asks")));
            return 0;
        }
        Client* client = server.clientNamed(peer.name);
        if (client == nullptr) return 0;
        server.workers_->add(client->lane, [&server, peer = std::move(peer)] {
            auto session = server.admit_(peer);
            server.loop_->post([&server, name = peer.name, session = std::move(session)](sd_bus*) mutable {
                server.admitted(name, std::move(session));
            });
        });
        return 0;
    }

    void admitted(const std::string& name, Result<std::shared_ptr<session::Session>> session) {
        Client* client = clientNamed(name);
        if (client == nullptr) return;
        if (session) {
            client->state = Client::State::admitted;
            client->session = std::move(*session);
        } else {
            client->state = Client::State::refused;
            client->refusal = session.error();
            client->refusal->userInfo["refused"] = "yes";
            log_.write(log::Level::info, "refused " + name + ": " + describe(session.error()));
        }
        for (auto& request : std::exchange(client->waiting, {})) request();
        if (client->state != Client::State::refused) return;
        client->jobs.clear();
        client->watches.clear();
    }

    /// The client went: nothing of it stays.
    void forget(const std::string& name) {
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
        workers_->add(client->lane, [this, client] {
            for (const auto& [container, entry] : client->watches) entry->watch.reset();
            jobWorkers_->add(client->jobLane, [client] { client->session.reset(); });
        });
        // Each finds that nobody waits for it any more, and lets go of its message.
        for (auto& request : std::exchange(client->waiting, {})) request();
    }

    // Requests

    /// Answers when the work is done.
    void request(sd_bus_message* call, Work work) {
        Client* client = clientOf(call);
        if (client == nullptr) return;
        begin(call, *client, [this, work = std::move(work)](Client& admittedClient, std::uint64_t id) mutable {
            workers_->add(admittedClient.lane, [this, id, session = admittedClient.session,
                                                work = std::move(work)]() mutable {
                Answer answer = work(*session);
                work = {};
                session.reset();
                loop_->post([this, id, answer = std::move(answer)](sd_bus*) mutable { finish(id, std::move(answer)); });
            });
        });
    }

    using Start = std::move_only_function<void(Client&, std::uint64_t)>;

    /// Counts the call among the client's, and starts it once it is known who asks.
    void begin(sd_bus_message* call, Client& client, Start start) {
        ++client.requests;
        const std::uint64_t id = ++lastCall_;
        const std::string name = sd_bus_message_get_sender(call);
        calls_.emplace(id, Call{sd_bus_message_ref(call), name});
        auto go = [this, id, name, start = std::move(start)]() mutable {
            Client* asking = clientNamed(name);
            if (asking == nullptr) return drop(id);
            if (asking->state == Client::State::refused) return finish(id, failure(*asking->refusal));
            start(*asking, id);
        };
        if (client.state == Client::State::asking) {
            client.waiting.push_back(std::move(go));
        } else {
            go();
        }
    }

    struct Call {
        sd_bus_message* message;
        std::string client;
    };

    void finish(std::uint64_t id, Answer answer) {
        const auto found = calls_.find(id);
        if (found == calls_.end()) return;
        sendAnswer(found->second.message, answer);
        drop(id);
    }

    void drop(std::uint64_t id) {
        const auto found = calls_.find(id);
        if (found == calls_.end()) return;
        if (Client* client = clientNamed(found->second.client)) --client->requests;
        sd_bus_message_unref(found->second.message);
        calls_.erase(found);
    }

    // Watches

    void watch(sd_bus_message* call, std::string container) {
        Client* client = clientOf(call);
        if (client == nullptr) return;
        const bool isNew = !client->watches.contains(container);
        if (isNew && client->watches.size() >= options_.limits.watches) {
            return refuseLimit(call, "too many containers are watched; end some with Unwatch");
        }
        if (isNew) {
            auto added = std::make_shared<WatchEntry>();
            added->container = container;
            client->watches.emplace(container, std::move(added));
        }
        const std::string name = sd_bus_message_get_sender(call);
        begin(call, *client, [this, name, container](Client& watching, std::uint64_t id) {
            const auto found = watching.watches.find(container);
            if (found == watching.watches.end()) return finish(id, nothing());  // by an Unwatch
            workers_->add(watching.lane, [this, id, name, entry = found->second, session = watching.session] {
                Answer answer = beginWatch(*session, name, entry);
                const bool failed = !answer;
                loop_->post([this, id, name, entry, failed, answer = std::move(answer)](sd_bus*) mutable {
                    if (failed) unwatchFailed(name, *entry);
                    finish(id, std::move(answer));
                });
            });
        });
    }

    /// On the client's lane.
    Answer beginWatch(session::Session& session, const std::string& name, const std::shared_ptr<WatchEntry>& entry) {
        if (entry->watch) return nothing();
        const auto changed = [this, name, weak = std::weak_ptr(entry)] {
            const auto watched = weak.lock();
            if (!watched || watched->isSignalled.exchange(true)) return;
            loop_->post([this, name, container = watched->container](sd_bus*) { signalChange(name, container); });
        };
        auto watch = session.watch(entry->container, changed);
        if (!watch) return failure(watch.error());
        entry->watch = std::move(*watch);
        return nothing();
    }

    void unwatchFailed(const std::string& name, const WatchEntry& entry) {
        if (Client* client = clientNamed(name)) client->watches.erase(entry.container);
    }

    void signalChange(const std::string& name, const std::string& container) {
        Client* client = clientNamed(name);
        if (client == nullptr || !client->watches.contains(container)) return;
        sendSignal(name, kObjectPath, kInterface, "ContainerChanged",
                   [&](Writer& writer) { writer.string(container); });
    }

    void sendSignal(const std::string& to, const char* path, const char* interface, const char* member,
                    const std::function<void(Writer&)>& write) {
        sd_bus_message* signal = nullptr;
        if (sd_bus_message_new_signal(connection_, &signal, path, interface, member) < 0) return;
        Writer writer(signal);
        write(writer);
        if (writer.error() == 0) sd_bus_send_to(connection_, signal, to.c_str(), nullptr);
        sd_bus_message_unref(signal);
    }

    void unwatch(sd_bus_message* call, const std::string& container) {
        Client* client = clientOf(call);
        if (client == nullptr) return;
        begin(call, *client, [this, container](Client& watching, std::uint64_t id) {
            const auto found = watching.watches.find(container);
            if (found == watching.watches.end()) return finish(id, nothing());
            const auto entry = std::move(found->second);
            watching.watches.erase(found);
            workers_->add(watching.lane, [this, id, entry] {
                entry->watch.reset();
                loop_->post([this, id](sd_bus*) { finish(id, nothing()); });
            });
        });
    }

    // Jobs

    std::shared_ptr<Job> jobOf(const std::string& owner, const std::string& path) {
        Client* client = clientNamed(owner);
        if (client == nullptr) return nullptr;
        const auto found = client->jobs.find(path);
        return found == client->jobs.end() ? nullptr : found->second;
    }

    void startJob(sd_bus_message* call, JobWork work) {
        Client* client = clientOf(call);
        if (client == nullptr) return;
        if (client->jobs.size() >= options_.limits.jobs) {
            return refuseLimit(call, "too many jobs at a time; fetch the results of some");
        }
        auto job = std::make_shared<Job>();
        job->path = std::string(kJobPrefix) + "/" + std::to_string(++lastJob_);
        job->owner = sd_bus_message_get_sender(call);
        job->control = std::make_shared<session::JobControl>(progressListener(*job));
        client->jobs.emplace(job->path, job);
        begin(call, *client, [this, job, work = std::move(work)](Client& starting, std::uint64_t id) mutable {
            // Before it is begun, so that the path is known before anything is told of the job.
            finish(id, WriteAnswer([path = job->path](Writer& writer) { writer.objectPath(path); }));
            jobWorkers_->add(starting.jobLane,
                             [this, job, session = starting.session, work = std::move(work)]() mutable {
                                 Answer outcome = work(*session, *job->control);
                                 work = {};
                                 session.reset();
                                 loop_->post([this, job, outcome = std::move(outcome)](sd_bus*) mutable {
                                     jobDone(*job, std::move(outcome));
                                 });
                             });
        });
    }

    /// Tells the owner now and then. Called on threads of the session's.
    session::JobControl::Listener progressListener(const Job& job) {
        struct Last {
            std::mutex mutex;
            Clock::time_point told;
        };
        return [this, path = job.path, owner = job.owner,
                last = std::make_shared<Last>()](const session::JobProgress& progress) {
            {
                const std::lock_guard lock(last->mutex);
                const auto now = Clock::now();
                if (now - last->told < kProgressPause) return;
                last->told = now;
            }
            loop_->post([this, path, owner, progress](sd_bus*) {
                if (!jobOf(owner, path)) return;
                sendSignal(owner, path.c_str(), kJobInterface, "Progress",
                           [&](Writer& writer) { write(writer, progress); });
            });
        };
    }

    void jobDone(Job& job, Answer outcome) {
        job.outcome = std::move(outcome);
        if (job.waiting.empty()) return;
        for (sd_bus_message* call : job.waiting) {
            sendAnswer(call, *job.outcome);
            sd_bus_message_unref(call);
        }
        job.waiting.clear();
        jobFetched(job);
    }

    /// Whoever has the result needs the job no more.
    void jobFetched(const Job& job) {
        if (Client* client = clientNamed(job.owner)) client->jobs.erase(std::string(job.path));
    }

    int jobResult(sd_bus_message* call) {
        const auto job = jobOf(sd_bus_message_get_sender(call), sd_bus_message_get_path(call));
        if (!job) return -ENOENT;
        if (job->outcome) {
            sendAnswer(call, *job->outcome);
            jobFetched(*job);
        } else if (job->waiting.size() >= options_.limits.requests) {
            refuseLimit(call, "too many requests at a time");
        } else {
            job->waiting.push_back(sd_bus_message_ref(call));
        }
        return 1;
    }

    int cancelJob(sd_bus_message* call) {
        const auto job = jobOf(sd_bus_message_get_sender(call), sd_bus_message_get_path(call));
        if (!job) return -ENOENT;
        job->control->cancel();
        sd_bus_reply_method_return(call, "");
        return 1;
    }

    const Options options_;
    const Admit admit_;
    log::Log& log_;
    Table hostTable_, jobTable_;
    std::unordered_map<std::string_view, const Method*> methods_;
    std::unordered_map<std::string_view, const JobMethod*> jobMethods_;

    // On the connection's thread only.
    sd_bus* connection_ = nullptr;
    bool isEnding_ = false;
    std::unordered_map<std::string, std::shared_ptr<Client>> clients_;
    std::unordered_map<std::uint64_t, Call> calls_;
    std::uint64_t lastCall_ = 0, lastJob_ = 0;

    std::unique_ptr<Workers> workers_, jobWorkers_;
    std::unique_ptr<Loop> loop_;
};

Result<std::unique_ptr<Server>> Server::start(Options options, Admit admit, log::Log& log) {
    auto impl = std::make_unique<Impl>(std::move(options), std::move(admit), log);
    if (auto started = impl->start(); !started) return failure(started.error());
    return std::unique_ptr<Server>(new Server(std::move(impl)));
}

Server::Server(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Server::~Server() = default;

Server::Counts Server::counts() const { return impl_->counts(); }

}  // namespace tarnwell::bus
