#pragma once

#include <memory>

#include "platform/filesystem/Roots.h"
#include "platform/log/Log.h"
#include "platform/registry/AppRegistry.h"
#include "platform/registry/RegistrySources.h"
#include "platform/registry/RegistryWatch.h"

namespace tarnwell::registry {

/// The applications of a Linux desktop: Flatpaks, Snaps and desktop entries that name a data container.
///
/// Every record has an identifier (a Flatpak's ID, "snap.<instance name>", a desktop file's ID) and gives values, an
/// empty set where it declares none; a name is missing where no usable one is declared. There are no null records: what
/// cannot be described is left out with a debug line (see ApplicationScanner). Snaps are the system's.
///
/// A record made from an archive keeps identifier, container, origin and type of the archive. Its name, values and
/// flags are those of the application that is installed under its identifier and origin when it is asked; with none
/// there is no name, no value, the flags are false, and the icon is the generic one.
///
/// Records may outlive the registry, but neither outlives `roots` and `log`.
class LinuxAppRegistry final : public AppRegistry, private AppWorkspace {
public:
    static std::unique_ptr<LinuxAppRegistry> create(RegistrySources sources, Roots& roots, log::Log& log);

    std::string name() const override { return "LinuxAppRegistry"; }
    AppWorkspace* defaultWorkspace() override { return this; }
    BundleRecordPtr recordForBundleIdentifier(const std::string& bundleIdentifier) override;
    BundleRecordPtr recordFromArchive(const ArchivedBundleRecord& archived) override;

    /// Names are given in these languages from now on (RegistrySources::languages); false where they are the ones that
    /// they are given in already. Any thread.
    bool setLanguages(const std::vector<std::string>& languages);
    std::vector<std::string> languages() const;

    /// Tells soon after something changed of which the registry tells, as long as the watch lives. See RegistryWatch.
    Result<std::unique_ptr<RegistryWatch>> watch(std::function<void()> changed);

    /// What records share with the registry.
    struct State;

private:
    explicit LinuxAppRegistry(std::shared_ptr<State> state) : state_(std::move(state)) {}
    void enumerateApplications(ApplicationType type, const std::function<void(const BundleRecordPtr&)>& body) override;

    std::shared_ptr<State> state_;
};

}  // namespace tarnwell::registry
