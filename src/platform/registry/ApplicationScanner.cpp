#include "platform/registry/ApplicationScanner.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/log/LineText.h"
#include "platform/registry/BundleIdentifier.h"

namespace tarnwell::registry {
namespace {

constexpr std::string_view kDesktopSuffix = ".desktop";

struct FolderEntry {
    std::string name;
    bool isFolder = false;
};

/// A link to a folder is none: links could lead round in circles.
bool isFolder(const std::string& path, unsigned char type) {
    if (type != DT_UNKNOWN) return type == DT_DIR;
    struct stat status{};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// The entries by name, at most kMaxFolderEntries; none where there is no such folder.
std::vector<FolderEntry> entriesOf(const std::string& folder) {
    std::vector<FolderEntry> entries;
    std::unique_ptr<DIR, int (*)(DIR*)> open(opendir(folder.c_str()), closedir);
    if (!open) return entries;
    while (const dirent* entry = readdir(open.get())) {
        if (entry->d_name[0] == '.') continue;
        if (entries.size() == kMaxFolderEntries) break;
        entries.push_back({entry->d_name, isFolder(folder + "/" + entry->d_name, entry->d_type)});
    }
    std::ranges::sort(entries, {}, &FolderEntry::name);
    return entries;
}

/// "x" of "x.desktop"; nothing for any other name.
std::optional<std::string> stemOf(std::string_view name) {
    if (!name.ends_with(kDesktopSuffix) || name.size() == kDesktopSuffix.size()) return std::nullopt;
    return std::string(name.substr(0, name.size() - kDesktopSuffix.size()));
}

/// True for the desktop file names that a Flatpak may export: its ID, and its ID with something behind.
bool belongsTo(std::string_view stem, std::string_view identifier) {
    if (!stem.starts_with(identifier)) return false;
    return stem.size() == identifier.size() || stem[identifier.size()] == '.' || stem[identifier.size()] == '-';
}

/// The instance name in "<instance>_<application>", where an instance key may be written with "+".
std::string snapNameOf(std::string_view stem) {
    std::string name(stem.substr(0, stem.find('_')));
    std::ranges::replace(name, '+', '_');
    return name;
}

std::string_view withoutKey(std::string_view snapInstance) { return snapInstance.substr(0, snapInstance.find('_')); }

std::string reasonOf(const Error& error) {
    const auto message = error.userInfo.find(kErrorMessage);
    return message != error.userInfo.end() ? message->second : describe(error);
}

/// How the application presents itself is up to its main desktop file.
void beMain(Application& application, const DesktopEntry& entry) {
    application.localizedName = entry.localizedName;
    application.icon = entry.icon;
}

/// Adds what one more desktop file of the same application says.
void add(Application& application, const DesktopEntry& entry) {
    application.opensDocuments = application.opensDocuments || entry.opensDocuments;
    application.sharesFiles = application.sharesFiles || entry.sharesFiles.value_or(false);
    if (!entry.supportsDocumentBrowser) return;
    application.supportsDocumentBrowser =
        application.supportsDocumentBrowser.value_or(false) || *entry.supportsDocumentBrowser;
}

/// The desktop files below a folder by their IDs: in sub-folders "a/b.desktop" has the ID "a-b". The first of an ID
/// counts; of two in one folder, the first by name.
void collectDesktopFiles(const std::string& folder, const std::string& prefix, int depth,
                         std::map<std::string, std::string>& paths) {
    for (const FolderEntry& entry : entriesOf(folder)) {
        const std::string path = folder + "/" + entry.name;
        if (entry.isFolder) {
            if (depth < kMaxDesktopFolderDepth && paths.size() < kMaxFolderEntries) {
                collectDesktopFiles(path, prefix + entry.name + "-", depth + 1, paths);
            }
        } else if (const auto stem = stemOf(entry.name)) {
            paths.emplace(prefix + *stem, path);
        }
    }
}

/// Desktop files in the folder, and in its sub-folders from that depth on, may come, go and change.
void watchDesktopFiles(WatchedFolders& watched, const std::string& folder, int depth) {
    watched.addContents(folder);
    for (const FolderEntry& entry : entriesOf(folder)) {
        const std::string path = folder + "/" + entry.name;
        if (entry.isFolder) {
            if (depth < kMaxDesktopFolderDepth) watchDesktopFiles(watched, path, depth + 1);
        } else if (stemOf(entry.name)) {
            // Exported entries are links, which lead through the version that is installed.
            watched.add(path);
        }
    }
}

}  // namespace

ApplicationScanner::ApplicationScanner(RegistrySources sources, ProblemLog& problems)
    : sources_(std::move(sources)), problems_(problems) {}

std::vector<ApplicationPtr> ApplicationScanner::applications(ApplicationType type) {
    Found found = scan({.type = type});
    if (type == ApplicationType::system) {
        for (const auto& [identifier, application] : scan({.type = ApplicationType::user})) found.erase(identifier);
    }
    std::vector<ApplicationPtr> result;
    result.reserve(found.size());
    for (auto& [identifier, application] : found) {
        result.push_back(std::make_shared<const Application>(std::move(application)));
    }
    return result;
}

ApplicationPtr ApplicationScanner::application(const std::string& identifier, std::optional<Origin> origin) {
    if (!isUsableIdentifier(identifier)) return nullptr;
    for (const ApplicationType type : {ApplicationType::user, ApplicationType::system}) {
        Found found = scan({.type = type, .identifier = &identifier, .origin = origin});
        if (const auto at = found.find(identifier); at != found.end()) {
            return std::make_shared<const Application>(std::move(at->second));
        }
    }
    return nullptr;
}

WatchedFolders ApplicationScanner::watchedFolders() {
    WatchedFolders watched;
    std::vector<std::string> installations = sources_.flatpakSystemDirs;
    if (!sources_.flatpakUserDir.empty()) installations.push_back(sources_.flatpakUserDir);
    for (const std::string& installation : installations) {
        // Touched at the end of whatever is done to the installation.
        watched.add(installation + "/.changed");
        watched.addContents(installation + "/overrides");
        watchDesktopFiles(watched, installation + "/exports/share/applications", kMaxDesktopFolderDepth);
    }
    for (const std::string& folder : sources_.snapDesktopDirs) {
        watchDesktopFiles(watched, folder, kMaxDesktopFolderDepth);
    }
    std::vector<std::string> folders = sources_.systemDesktopDirs;
    if (!sources_.userDesktopDir.empty()) folders.push_back(sources_.userDesktopDir);
    for (const std::string& folder : folders) watchDesktopFiles(watched, folder, 0);

    for (const ApplicationType type : {ApplicationType::user, ApplicationType::system}) {
        for (const auto& [identifier, application] : scan({.type = type})) {
            watched.add(application.containerPath + "/Documents");
            if (application.origin != Origin::flatpak) continue;
            for (const std::string& installation : installations) {
                watched.add(installation + "/app/" + identifier + "/current/active/metadata");
            }
        }
    }
    return watched;
}

/// std::map::merge keeps what is there already, so what is scanned first counts.
ApplicationScanner::Found ApplicationScanner::scan(const Query& query) {
    const bool ofUser = query.type == ApplicationType::user;
    const auto wants = [&query](Origin origin) { return !query.origin || *query.origin == origin; };
    Found found;
    if (wants(Origin::flatpak)) {
        if (ofUser && !sources_.flatpakUserDir.empty()) found.merge(scanFlatpaks(sources_.flatpakUserDir, query));
        for (const std::string& installation : sources_.flatpakSystemDirs) {
            if (!ofUser) found.merge(scanFlatpaks(installation, query));
        }
    }
    if (wants(Origin::snap) && !ofUser) {
        for (const std::string& folder : sources_.snapDesktopDirs) found.merge(scanSnaps(folder, query));
    }
    if (wants(Origin::desktopEntry)) found.merge(scanDesktopEntries(query));
    return found;
}

ApplicationScanner::Found ApplicationScanner::scanFlatpaks(const std::string& installation, const Query& query) {
    Found found;
    if (sources_.varApp.empty()) return found;
    const std::string folder = installation + "/exports/share/applications";
    for (const FolderEntry& file : entriesOf(folder)) {
        const auto stem = stemOf(file.name);
        if (!stem || (query.identifier && !belongsTo(*stem, *query.identifier))) continue;
        const std::string path = folder + "/" + file.name;
        const auto entry = entryAt(path);
        if (!entry) continue;
        const bool named = entry->flatpakIdentifier && belongsTo(*stem, *entry->flatpakIdentifier);
        const std::string& identifier = named ? *entry->flatpakIdentifier : *stem;
        if (query.identifier && *query.identifier != identifier) continue;
        if (!acceptIdentifier(identifier, path, Origin::flatpak)) continue;
        auto [at, isFirst] = found.try_emplace(identifier);
        if (isFirst) {
            at->second = {.identifier = identifier,
                          .origin = Origin::flatpak,
                          .type = query.type,
                          .containerPath = sources_.varApp + "/" + identifier,
                          .localizedName = entry->localizedName,
                          .sharesFiles = keepsDocuments(installation, identifier),
                          .icon = entry->icon,
                          .iconDirs = {installation + "/exports/share/icons"}};
        }
        if (*stem == identifier) beMain(at->second, *entry);
        add(at->second, *entry);
        problems_.settle(path);
    }
    return found;
}

ApplicationScanner::Found ApplicationScanner::scanSnaps(const std::string& folder, const Query& query) {
    Found found;
    if (sources_.snapHome.empty()) return found;
    const auto wanted = query.identifier ? snapInstanceOf(*query.identifier) : std::nullopt;
    if (query.identifier && !wanted) return found;
    for (const FolderEntry& file : entriesOf(folder)) {
        const auto stem = stemOf(file.name);
        if (!stem) continue;
        const std::string nameInFile = snapNameOf(*stem);
        if (wanted && withoutKey(nameInFile) != withoutKey(*wanted)) continue;
        const std::string path = folder + "/" + file.name;
        const auto entry = entryAt(path);
        if (!entry) continue;
        const std::string name = entry->snapInstanceName.value_or(nameInFile);
        if (wanted && *wanted != name) continue;
        const std::string identifier = snapIdentifier(name);
        if (!acceptIdentifier(identifier, path, Origin::snap)) continue;
        auto [at, isFirst] = found.try_emplace(identifier);
        if (isFirst) {
            at->second = {.identifier = identifier,
                          .origin = Origin::snap,
                          .type = query.type,
                          .containerPath = sources_.snapHome + "/" + name + "/current",
                          .localizedName = entry->localizedName,
                          .sharesFiles = true,
                          .icon = entry->icon,
                          .iconDirs = {folder + "/../icons"}};
        }
        const std::string snap(withoutKey(name));
        if (stem->ends_with("_" + snap)) beMain(at->second, *entry);
        add(at->second, *entry);
        problems_.settle(path);
    }
    return found;
}

ApplicationScanner::Found ApplicationScanner::scanDesktopEntries(const Query& query) {
    std::map<std::string, std::string> ofUser;
    if (!sources_.userDesktopDir.empty()) collectDesktopFiles(sources_.userDesktopDir, "", 0, ofUser);
    std::map<std::string, std::string> paths;
    if (query.type == ApplicationType::user) {
        paths = std::move(ofUser);
    } else {
        for (const std::string& folder : sources_.systemDesktopDirs) {
            std::map<std::string, std::string> inFolder;
            collectDesktopFiles(folder, "", 0, inFolder);
            paths.merge(inFolder);
        }
        for (const auto& [identifier, path] : ofUser) paths.erase(identifier);
    }
    Found found;
    const auto consider = [&](const std::string& identifier, const std::string& path) {
        if (auto application = desktopApplication(identifier, path, query.type)) {
            found.emplace(identifier, std::move(*application));
        }
    };
    if (query.identifier) {
        if (const auto at = paths.find(*query.identifier); at != paths.end()) consider(at->first, at->second);
    } else {
        for (const auto& [identifier, path] : paths) consider(identifier, path);
    }
    return found;
}

std::optional<Application> ApplicationScanner::desktopApplication(const std::string& identifier,
                                                                  const std::string& path, ApplicationType type) {
    const auto entry = entryAt(path, "X-Tarnwell-DataContainer");
    if (!entry || !entry->dataContainer) return std::nullopt;
    if (!acceptIdentifier(identifier, path, Origin::desktopEntry)) return std::nullopt;
    std::string container = *entry->dataContainer;
    if (container.starts_with("~/") && !sources_.home.empty()) container.replace(0, 1, sources_.home);
    if (!container.starts_with('/')) {
        problems_.report(path, "skipped the application \"" + log::asOneLine(identifier) + "\" of \"" +
                                   log::asOneLine(path) + "\"; its data container \"" + log::asOneLine(container) +
                                   "\" begins neither with \"/\" nor with \"~/\"");
        return std::nullopt;
    }
    Application application{.identifier = identifier,
                            .origin = Origin::desktopEntry,
                            .type = type,
                            .containerPath = std::move(container),
                            .localizedName = entry->localizedName,
                            .icon = entry->icon};
    add(application, *entry);
    problems_.settle(path);
    return application;
}

bool ApplicationScanner::keepsDocuments(const std::string& installation, const std::string& identifier) {
    PersistentFolders folders;
    const auto metadata = metadataAt(installation + "/app/" + identifier + "/current/active/metadata");
    // What another application declares says nothing about this one.
    if (metadata && metadata->applicationName.value_or(identifier) == identifier) folders.apply(metadata->persistent);
    applyOverrides(folders, installation, identifier);
    if (installation != sources_.flatpakUserDir && !sources_.flatpakUserDir.empty()) {
        applyOverrides(folders, sources_.flatpakUserDir, identifier);
    }
    return folders.holdDocuments();
}

void ApplicationScanner::applyOverrides(PersistentFolders& folders, const std::string& installation,
                                        const std::string& identifier) {
    for (const std::string& name : {std::string("global"), identifier}) {
        if (const auto overrides = metadataAt(installation + "/overrides/" + name))
            folders.apply(overrides->persistent);
    }
}

std::shared_ptr<const DesktopEntry> ApplicationScanner::entryAt(const std::string& path, std::string_view neededKey) {
    const auto entry = entries_.load(path, [&](std::string_view content) -> Result<DesktopEntry> {
        if (!content.contains(neededKey)) return DesktopEntry{};
        return parseDesktopEntry(content, sources_.languages);
    });
    if (!entry) {
        // A link whose target went is what an uninstallation leaves for a moment.
        if (!entry.error().is(ErrorDomain::posix, ENOENT)) {
            problems_.report(path,
                             "skipped the desktop file \"" + log::asOneLine(path) + "\"; " + reasonOf(entry.error()));
        }
        return nullptr;
    }
    return (*entry)->isApplication && !(*entry)->isHidden ? *entry : nullptr;
}

std::shared_ptr<const FlatpakMetadata> ApplicationScanner::metadataAt(const std::string& path) {
    const auto metadata = metadata_.load(path, parseFlatpakMetadata);
    if (metadata) {
        problems_.settle(path);
        return *metadata;
    }
    if (!metadata.error().is(ErrorDomain::posix, ENOENT)) {
        problems_.report(path,
                         "skipped the metadata file \"" + log::asOneLine(path) + "\"; " + reasonOf(metadata.error()));
    }
    return nullptr;
}

bool ApplicationScanner::acceptIdentifier(const std::string& identifier, const std::string& path, Origin origin) {
    const bool namesSnap = snapInstanceOf(identifier).has_value();
    if (isUsableIdentifier(identifier) && namesSnap == (origin == Origin::snap)) {
        return true;
    }
    problems_.report(path, "skipped the application \"" + log::asOneLine(identifier) + "\" of \"" +
                               log::asOneLine(path) + "\"; its identifier cannot name an app library");
    return false;
}

}  // namespace tarnwell::registry
