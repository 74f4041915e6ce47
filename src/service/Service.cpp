#include "service/Service.h"

#include <atomic>
#include <filesystem>

#include "bus/server/Server.h"
#include "host/CallerLibrary.h"
#include "host/ConfinedSession.h"
#include "host/LocalSession.h"
#include "platform/caller/Caller.h"
#include "service/SearchFollower.h"
#include "service/UserManager.h"

namespace tarnwell::service {
namespace {

std::string realPath(const std::string& path) {
    std::error_code none;
    const auto real = std::filesystem::weakly_canonical(path, none);
    return none ? path : real.string();
}

}  // namespace

class Service::Impl {
public:
    Impl(std::unique_ptr<host::ProgramContext> context, log::Log& log)
        : context_(std::move(context)), log_(log), searchSession_(*context_) {}

    Result<void> start(Options options) {
        // Where the kernel offers nothing, looking every two seconds has to do.
        if (auto watching = context_->watchForChanges(); !watching) {
            log_.write(log::Level::error, "[ERROR] changes are looked for every two seconds; the kernel tells none: " +
                                              describe(watching.error()));
        }
        followsUserManager_ = options.followsUserManager;
        busAddress_ = options.busAddress;
        bus::Server::Options server;
        server.busAddress = options.busAddress;
        server.programVersion = options.programVersion;
        server.storageRoot = context_->roots().storage()->realPath;
        server.stateDirectory = realPath(options.settings.stateDirectory);
        server.onDisconnect = options.onDisconnect;
        auto started =
            bus::Server::start(std::move(server), [this](const bus::Peer& peer) { return admit(peer); }, log_);
        if (!started) return failure(started.error());
        server_ = std::move(*started);
        follower_.emplace(*context_, searchSession_, log_);
        return {};
    }

    ~Impl() {
        // Looks at the disk that are under way end, and with them the requests that wait for them.
        context_->giveUp();
        server_.reset();
        follower_.reset();
    }

    void reload() {
        followLanguage();
        context_->provider().refreshInstalledAppsWithCompletionHandler({});
    }

    std::string summary() const {
        const auto counts = server_->counts();
        return "serving " + std::to_string(counts.clients) + (counts.clients == 1 ? " client" : " clients");
    }

private:
    Result<std::shared_ptr<session::Session>> admit(const bus::Peer& peer) {
        const auto caller = caller::identify({peer.pid, peer.uid, peer.securityLabel, -1});
        if (caller.kind == caller::Caller::Kind::unknown) {
            return failure(posixError(EACCES, "it cannot be told which program asks: " + caller.reason));
        }
        followLanguage();
        auto session = std::make_shared<host::LocalSession>(*context_);
        if (caller.kind == caller::Caller::Kind::host) return session;
        const auto library = [this, caller]() -> std::optional<session::ItemIdentifier> {
            const auto scope = host::scopeOf(caller, *context_->appLibraries().sharedManager().generation());
            if (scope.kind != host::CallerScope::Kind::library || !scope.library->bundleIdentifier()) {
                return std::nullopt;
            }
            return "#" + *scope.library->bundleIdentifier();
        };
        return std::make_shared<host::ConfinedSession>(std::move(session), library);
    }

    /// In the background: nobody waits for the manager. At most once at a time, so that many who connect cost little.
    void followLanguage() {
        if (!followsUserManager_ || isLookingAtLanguage_.exchange(true)) return;
        context_->appLibraries().backgroundQueue().async([this] {
            isLookingAtLanguage_ = false;
            const auto variables = environmentOfUserManager(busAddress_);
            if (!variables) return;  // there is none, so nothing tells of another language
            context_->setLanguages(registry::RegistrySources::languagesFrom([&](const char* name) {
                const auto found = variables->find(name);
                return found == variables->end() ? std::nullopt : std::optional(found->second);
            }));
        });
    }

    std::string busAddress_;
    bool followsUserManager_ = false;
    std::atomic<bool> isLookingAtLanguage_{false};
    const std::unique_ptr<host::ProgramContext> context_;
    log::Log& log_;
    host::LocalSession searchSession_;
    std::unique_ptr<bus::Server> server_;
    std::optional<SearchFollower> follower_;
};

Result<std::unique_ptr<Service>> Service::start(Options options, log::Log& log) {
    auto context = host::ProgramContext::create(options.settings, log);
    if (!context) return failure(context.error());
    (*context)->prepareForRequests();
    auto impl = std::make_unique<Impl>(std::move(*context), log);
    if (auto started = impl->start(std::move(options)); !started) return failure(started.error());
    return std::unique_ptr<Service>(new Service(std::move(impl)));
}

Service::Service(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Service::~Service() = default;

void Service::reload() { impl_->reload(); }
std::string Service::summary() const { return impl_->summary(); }

}  // namespace tarnwell::service
