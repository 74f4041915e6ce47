#include "bus/server/Server.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <future>
#include <unordered_map>
#include <utility>

#include "bus/server/Clients.h"
#include "bus/server/InterfaceTable.h"
#include "bus/server/Jobs.h"
#include "bus/server/Replies.h"
#include "bus/server/Watches.h"
#include "bus/wire/Names.h"

namespace tarnwell::bus {

/// Puts the parts together, and hands them what the connection calls back.
class Server::Impl {
public:
    Impl(Options options, Admit admit, log::Log& log)
        : options_(std::move(options)), clients_(machinery_, std::move(admit), log) {
        machinery_.workers = std::make_unique<Workers>(options_.workers, 3 * options_.workers);
        machinery_.jobWorkers = std::make_unique<Workers>(options_.jobWorkers, options_.jobWorkers);
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
            options_.busAddress, [this](sd_bus* connection) { return begin(connection); }, options_.onDisconnect);
        if (!loop) return failure(loop.error());
        machinery_.loop = std::move(*loop);
        machinery_.loop->afterMessages([this](sd_bus* connection) { clients_.goOn(connection); });
        machinery_.loop->start();
        return {};
    }

    ~Impl() {
        if (!machinery_.loop) return;
        runOnLoop([this](sd_bus* connection) {
            if (connection != nullptr) sd_bus_release_name(connection, kServiceName);
            clients_.end();
        });
        // What they finish is posted, and answered before the loop ends. The lanes of requests end first: the sessions
        // go on those of the jobs.
        machinery_.workers.reset();
        machinery_.jobWorkers.reset();
        machinery_.loop.reset();
    }

    Counts counts() {
        Counts counts;
        runOnLoop([&](sd_bus*) { counts = clients_.counts(); });
        return counts;
    }

private:
    /// Waits until it is done. Not on the loop's thread.
    void runOnLoop(const std::function<void(sd_bus*)>& task) {
        std::promise<void> done;
        machinery_.loop->post([&](sd_bus* connection) {
            task(connection);
            done.set_value();
        });
        done.get_future().wait();
    }

    Result<void> begin(sd_bus* connection) {
        machinery_.connection = connection;
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

    /// Reads the arguments; `ask` gets what they were and their size, if they could be read.
    template <typename Read, typename Ask>
    static int withArguments(sd_bus_message* call, void* data, Read read, Ask ask) {
        Reader reader(call, kLargestRequest);
        auto arguments = read(reader);
        if (reader.error() < 0) {
            Impl& server = self(data);
            server.clients_.misused(call, reader.error());
        } else {
            ask(std::move(arguments), reader.bytesRead());
        }
        return 1;
    }

    static int called(sd_bus_message* call, void* data, sd_bus_error*) {
        Impl& server = self(data);
        const Method& method = *server.methods_.at(sd_bus_message_get_member(call));
        return withArguments(call, data, method.prepare, [&](Work work, std::size_t size) {
            server.clients_.request(call, size, method.effect, std::move(work));
        });
    }

    static int calledJob(sd_bus_message* call, void* data, sd_bus_error*) {
        Impl& server = self(data);
        return withArguments(call, data, server.jobMethods_.at(sd_bus_message_get_member(call))->prepare,
                             [&](JobWork work, std::size_t size) { server.jobs_.start(call, size, std::move(work)); });
    }

    static int calledInfo(sd_bus_message* call, void* data, sd_bus_error*) {
        Impl& server = self(data);
        server.clients_.request(call, 0, Effect::none, [&options = server.options_](session::Session&) -> Answer {
            return WriteAnswer([&options](Writer& writer) {
                writer.uint32(kInterfaceVersion).string(options.programVersion);
                writer.bytes(options.storageRoot).bytes(options.stateDirectory);
            });
        });
        return 1;
    }

    static std::string readContainer(Reader& reader) { return reader.string(); }

    static int calledWatch(sd_bus_message* call, void* data, sd_bus_error*) {
        return withArguments(call, data, readContainer, [&](const std::string& container, std::size_t) {
            self(data).watches_.watch(call, container);
        });
    }

    static int calledUnwatch(sd_bus_message* call, void* data, sd_bus_error*) {
        return withArguments(call, data, readContainer, [&](const std::string& container, std::size_t) {
            self(data).watches_.unwatch(call, container);
        });
    }

    static int calledResult(sd_bus_message* call, void* data, sd_bus_error*) { return self(data).jobs_.result(call); }
    static int calledCancel(sd_bus_message* call, void* data, sd_bus_error*) { return self(data).jobs_.cancel(call); }

    /// A job is there for the client that started it, and for nobody else.
    static int findJob(sd_bus*, const char* path, const char*, void* data, void** found, sd_bus_error*) {
        Impl& server = self(data);
        sd_bus_message* call = sd_bus_get_current_message(server.machinery_.connection);
        const char* sender = call == nullptr ? nullptr : sd_bus_message_get_sender(call);
        if (sender == nullptr || !server.jobs_.has(sender, path)) return 0;
        *found = data;
        return 1;
    }

    static int ownerChanged(sd_bus_message* signal, void* data, sd_bus_error*) {
        Reader reader(signal);
        const std::string name = reader.string();
        if (reader.error() == 0) self(data).clients_.forget(name);
        return 0;
    }

    const Options options_;
    Machinery machinery_{options_};
    Clients clients_;
    Watches watches_{machinery_, clients_};
    Jobs jobs_{machinery_, clients_};
    InterfaceTable hostTable_, jobTable_;
    std::unordered_map<std::string_view, const Method*> methods_;
    std::unordered_map<std::string_view, const JobMethod*> jobMethods_;
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
