#include "testing/FakeAppRegistry.h"

#include <cerrno>
#include <mutex>
#include <utility>

namespace tarnwell::testing {

using registry::ApplicationType;
using registry::ArchivedBundleRecord;
using registry::BundleRecordPtr;
using registry::Origin;
using Application = FakeAppRegistry::Application;

struct FakeAppRegistry::State {
    explicit State(Roots& sharedRoots) : roots(sharedRoots) {}

    std::vector<std::optional<Application>> applications() const {
        std::lock_guard lock(mutex);
        return set;
    }
    /// The user's application of that identifier, else the system's.
    std::optional<Application> find(const std::string& identifier) const {
        for (const ApplicationType type : {ApplicationType::user, ApplicationType::system}) {
            for (const auto& application : applications()) {
                if (application && application->bundleIdentifier == identifier && application->type == type) {
                    return application;
                }
            }
        }
        return std::nullopt;
    }

    Roots& roots;
    mutable std::mutex mutex;
    std::vector<std::optional<Application>> set;
};

namespace {

/// `archived` is fixed; the rest is that of an application, or of whatever is set when it is asked.
class FakeRecord final : public registry::BundleRecord {
public:
    FakeRecord(std::shared_ptr<FakeAppRegistry::State> state, ArchivedBundleRecord archived,
               std::optional<Application> application)
        : state_(std::move(state)), archived_(std::move(archived)), application_(std::move(application)) {}

    std::optional<std::string> bundleIdentifier() const override { return archived_.bundleIdentifier; }
    std::optional<URL> dataContainerURL() const override {
        if (!archived_.dataContainerPath) return std::nullopt;
        const auto url = state_->roots.addContainer(*archived_.dataContainerPath);
        return url ? std::optional(*url) : std::nullopt;
    }
    std::optional<std::string> localizedName() const override {
        const auto application = current();
        return application ? application->localizedName : std::nullopt;
    }
    std::optional<std::map<std::string, bool>> infoValues(const std::set<std::string>& keys) const override {
        const auto application = current();
        std::map<std::string, bool> values;
        if (!application) return values;
        if (!application->hasInfoValues) return std::nullopt;
        const std::string key = "UISupportsDocumentBrowser";
        if (application->supportsDocumentBrowser && keys.contains(key)) values.emplace(key, true);
        return values;
    }
    bool supportsOpeningDocumentsInPlace() const override {
        const auto application = current();
        return application && application->opensInPlace;
    }
    bool isFileSharingEnabled() const override {
        const auto application = current();
        return application && application->fileSharing;
    }
    Result<icons::IconData> iconData(int variant) const override {
        const auto application = current();
        if (application && application->icon) return application->icon(variant);
        return failure(posixError(ENOENT, "no icon was set"));
    }
    Origin origin() const override { return archived_.origin; }
    ApplicationType type() const override { return archived_.type; }
    ArchivedBundleRecord archived() const override { return archived_; }
    std::string description() const override {
        return archived_.bundleIdentifier.value_or("(null)") + " (" + std::string(nameOf(archived_.origin)) +
               ") at \"" + archived_.dataContainerPath.value_or("") + "\"";
    }

private:
    std::optional<Application> current() const {
        if (application_ || !archived_.bundleIdentifier) return application_;
        return state_->find(*archived_.bundleIdentifier);
    }

    std::shared_ptr<FakeAppRegistry::State> state_;
    ArchivedBundleRecord archived_;
    std::optional<Application> application_;
};

BundleRecordPtr makeRecord(const std::shared_ptr<FakeAppRegistry::State>& state, const Application& application) {
    ArchivedBundleRecord archived{application.bundleIdentifier, application.containerPath, Origin::desktopEntry,
                                  application.type};
    return std::make_shared<FakeRecord>(state, std::move(archived), application);
}

}  // namespace

FakeAppRegistry::FakeAppRegistry(Roots& roots) : state_(std::make_shared<State>(roots)) {}

void FakeAppRegistry::setApplications(std::vector<std::optional<Application>> applications) {
    std::lock_guard lock(state_->mutex);
    state_->set = std::move(applications);
}

void FakeAppRegistry::enumerateApplications(ApplicationType type,
                                            const std::function<void(const BundleRecordPtr&)>& body) {
    for (const auto& application : state_->applications()) {
        if (!application) {
            if (type == ApplicationType::user) body(nullptr);
            continue;
        }
        if (application->type != type) continue;
        const bool isHidden = type == ApplicationType::system && application->bundleIdentifier &&
                              state_->find(*application->bundleIdentifier)->type == ApplicationType::user;
        if (!isHidden) body(makeRecord(state_, *application));
    }
}

BundleRecordPtr FakeAppRegistry::recordForBundleIdentifier(const std::string& bundleIdentifier) {
    const auto application = state_->find(bundleIdentifier);
    return application ? makeRecord(state_, *application) : nullptr;
}

BundleRecordPtr FakeAppRegistry::recordFromArchive(const ArchivedBundleRecord& archived) {
    return std::make_shared<FakeRecord>(state_, archived, std::nullopt);
}

}  // namespace tarnwell::testing
