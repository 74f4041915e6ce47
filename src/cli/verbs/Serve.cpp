#include <malloc.h>
#include <systemd/sd-daemon.h>

#include "cli/verbs/Verb.h"
#include "host/Settings.h"
#include "service/Service.h"
#include "service/SignalQueue.h"
#include "service/UserManager.h"

namespace tarnwell::cli {
namespace {

/// Large buffers go back to the system when they are freed. Left to itself the allocator raises both limits with the
/// first large buffer that it sees, and each thread then keeps up to 64 MiB for as long as the process lives.
void returnLargeBuffers() {
    constexpr int kLarge = 512 * 1024;
    (void)::mallopt(M_MMAP_THRESHOLD, kLarge);
    (void)::mallopt(M_TRIM_THRESHOLD, kLarge);
}

/// Tells systemd; nothing where it did not start the program (sd_notify(3)).
void notify(const std::string& state) { sd_notify(0, state.c_str()); }

class ServeVerb : public Verb {
public:
    const char* name() const override { return "serve"; }
    const char* summary() const override { return "Be the service that other programs ask, until interrupted"; }
    const char* example() const override {
        return "systemctl --user start tarnwell     as the session starts it; tarnwell serve does the same by hand";
    }

    Outcome run(Invocation& invocation) override {
        returnLargeBuffers();
        // Before any thread, since all of them inherit it.
        service::SignalQueue signals;
        const auto settings = host::Settings::fromEnvironment(invocation.options().storage);
        if (!settings) return std::unexpected(failureOf(settings.error()));
        notify("STATUS=looking at the documents");
        service::Service::Options options{.settings = *settings, .programVersion = TARNWELL_VERSION};
        options.followsUserManager = service::isStartedBySystemd();
        options.onDisconnect = [&signals] { signals.disconnected(); };
        auto service = service::Service::start(std::move(options), invocation.serviceLog());
        if (!service) return std::unexpected(failureOf(service.error()));
        notify("READY=1\nSTATUS=" + (*service)->summary());
        for (;;) {
            switch (signals.wait()) {
                case service::SignalQueue::Event::reload:
                    notify("RELOADING=1");
                    (*service)->reload();
                    notify("READY=1\nSTATUS=" + (*service)->summary());
                    break;
                case service::SignalQueue::Event::end:
                    notify("STOPPING=1");
                    return {};
                case service::SignalQueue::Event::disconnected:
                    notify("STOPPING=1");
                    return std::unexpected(
                        Failure{ExitStatus::failed, "the session bus has ended; so does the service"});
            }
        }
    }
};

}  // namespace

std::unique_ptr<Verb> makeServeVerb() { return std::make_unique<ServeVerb>(); }

}  // namespace tarnwell::cli
