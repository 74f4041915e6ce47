#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/registry/LinuxAppRegistry.h"
#include "testing/CapturingLog.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::registry {

/// The folders of one person's device, in which tests install applications, and the real registry over them.
class RegistryDevice {
public:
    RegistryDevice() {
        sources.home = path("home");
        sources.flatpakUserDir = path("home/.local/share/flatpak");
        sources.flatpakSystemDirs = {path("var/flatpak"), path("opt/flatpak")};
        sources.varApp = path("home/.var/app");
        sources.snapDesktopDirs = {path("var/snapd/desktop/applications")};
        sources.snapHome = path("home/snap");
        sources.userDesktopDir = path("home/.local/share/applications");
        sources.systemDesktopDirs = {path("usr/local/applications"), path("usr/applications")};
    }

    std::string path(const std::string& relative) const { return directory.path(relative); }

    void write(const std::string& relative, std::string_view content) const {
        const std::string file = path(relative);
        testing::makeDirectories(std::filesystem::path(file).parent_path());
        testing::writeFile(file, content);
    }
    void makeFolder(const std::string& relative) const { testing::makeDirectories(path(relative)); }

    /// A desktop file with a name and the further lines.
    static std::string entry(const std::string& name, const std::string& lines = "") {
        return "[Desktop Entry]\nType=Application\nName=" + name + "\n" + lines;
    }
    /// A Flatpak as its installation lays it out: the export is a link to the deployed files.
    void installFlatpak(const std::string& installation, const std::string& identifier, const std::string& desktopFile,
                        const std::string& context = "persistent=Documents;\n") const {
        const std::string deployed = installation + "/app/" + identifier + "/x86_64/stable/1";
        write(deployed + "/export/share/applications/" + identifier + ".desktop", desktopFile);
        write(deployed + "/metadata", "[Application]\nname=" + identifier + "\n[Context]\n" + context);
        std::filesystem::create_symlink("x86_64/stable", path(installation + "/app/" + identifier + "/current"));
        std::filesystem::create_symlink("1", path(installation + "/app/" + identifier + "/x86_64/stable/active"));
        makeFolder(installation + "/exports/share/applications");
        const std::string link = installation + "/exports/share/applications/" + identifier + ".desktop";
        std::filesystem::create_symlink(
            "../../../app/" + identifier + "/current/active/export/share/applications/" + identifier + ".desktop",
            path(link));
    }

    LinuxAppRegistry& registry() {
        if (!registry_) registry_ = LinuxAppRegistry::create(sources, roots, log);
        return *registry_;
    }
    std::vector<BundleRecordPtr> records(ApplicationType type) {
        std::vector<BundleRecordPtr> result;
        registry().defaultWorkspace()->enumerateApplications(
            type, [&result](const BundleRecordPtr& record) { result.push_back(record); });
        return result;
    }
    std::vector<std::string> identifiers(ApplicationType type) {
        std::vector<std::string> result;
        for (const BundleRecordPtr& record : records(type)) result.push_back(*record->bundleIdentifier());
        return result;
    }
    std::vector<std::string> userApplications() { return identifiers(ApplicationType::user); }
    std::vector<std::string> systemApplications() { return identifiers(ApplicationType::system); }
    BundleRecordPtr record(const std::string& identifier) { return registry().recordForBundleIdentifier(identifier); }

    testing::TemporaryDirectory directory;
    RegistrySources sources;
    Roots roots;
    testing::CapturingLog log;

private:
    std::unique_ptr<LinuxAppRegistry> registry_;
};

using Names = std::vector<std::string>;
inline constexpr const char* kUserFlatpaks = "home/.local/share/flatpak";
inline constexpr const char* kSystemFlatpaks = "var/flatpak";

}  // namespace tarnwell::registry
