#include "cli/verbs/RunningService.h"

#include <cerrno>
#include <filesystem>

#include "bus/client/BusSession.h"
#include "cli/output/Complaint.h"
#include "cli/output/Text.h"

namespace tarnwell::cli {
namespace {

bool isSame(const std::string& served, const std::string& own) {
    std::error_code none;
    return std::filesystem::weakly_canonical(own, none).string() == served && !none;
}

}  // namespace

std::expected<std::unique_ptr<bus::BusSession>, Failure> connectToService(const host::Settings& settings) {
    auto session = bus::BusSession::connect(bus::BusSession::Start::never);
    if (!session) {
        if (!session.error().is(ErrorDomain::posix, EACCES)) return nullptr;
        Failure refused = failureOf(session.error());
        refused.message = "the service does not answer this program: " + refused.message;
        return std::unexpected(std::move(refused));
    }
    const bus::ServiceInfo& service = (*session)->service();
    if (!isSame(service.storageRoot, settings.storageRoot) ||
        !isSame(service.stateDirectory, settings.stateDirectory)) {
        return nullptr;
    }
    if (service.programVersion != TARNWELL_VERSION) {
        // It goes on with what it has loaded until it ends, whatever was installed meanwhile.
        complain("the service that runs is version " + toDisplay(service.programVersion) +
                 ", this program is " TARNWELL_VERSION
                 "; \"systemctl --user restart tarnwell\" changes it for the new one");
    }
    return std::move(*session);
}

}  // namespace tarnwell::cli
