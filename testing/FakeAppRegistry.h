#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/filesystem/Roots.h"
#include "platform/registry/AppRegistry.h"

namespace tarnwell::testing {

/// A registry whose applications a test sets. `containerPath` is a real folder; its URL comes from Roots as for the
/// real registry. It enumerates in the order that the test set, so that a test can play a registry that lists the same
/// applications in another order; null records come with the user's applications. Its origin is the desktop entry.
///
/// Any thread may call any operation but `setHasWorkspace`. Records may outlive the registry, but not `roots`.
class FakeAppRegistry : public registry::AppRegistry, public registry::AppWorkspace {
public:
    struct Application {
        std::optional<std::string> bundleIdentifier = std::nullopt;
        std::optional<std::string> containerPath = std::nullopt;
        std::optional<std::string> localizedName = std::nullopt;
        bool hasInfoValues = true;
        bool supportsDocumentBrowser = true;
        bool opensInPlace = false;
        bool fileSharing = false;
        registry::ApplicationType type = registry::ApplicationType::user;
        /// Answers for each variant, on the thread that asks; unset, there is no icon of any.
        std::function<Result<icons::IconData>(int variant)> icon = nullptr;
    };
    explicit FakeAppRegistry(Roots& roots);
    void setApplications(std::vector<std::optional<Application>> applications);  ///< nothing = a null record
    void setHasWorkspace(bool has) { hasWorkspace_ = has; }

    std::string name() const override { return "FakeAppRegistry"; }
    registry::AppWorkspace* defaultWorkspace() override { return hasWorkspace_ ? this : nullptr; }
    void enumerateApplications(registry::ApplicationType type,
                               const std::function<void(const registry::BundleRecordPtr&)>& body) override;
    registry::BundleRecordPtr recordForBundleIdentifier(const std::string& bundleIdentifier) override;
    registry::BundleRecordPtr recordFromArchive(const registry::ArchivedBundleRecord& archived) override;

    /// What records share with the registry.
    struct State;

private:
    std::shared_ptr<State> state_;
    bool hasWorkspace_ = true;
};

}  // namespace tarnwell::testing
