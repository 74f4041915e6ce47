#include "platform/registry/ApplicationScanner.h"

#include <algorithm>
#include <cerrno>

#include "platform/log/LineText.h"
#include "platform/registry/BundleIdentifier.h"

namespace tarnwell::registry {
namespace {

constexpr std::string_view kDesktopSuffix = ".desktop";

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

}  // namespace

/// The desktop files below a folder by their IDs: in sub-folders "a/b.desktop" has the ID "a-b". The first of an ID
/// counts; of two in one folder, the first by name.
void ApplicationScanner::collectDesktopFiles(const std::string& folder, const std::string& prefix, int depth,
                                             DesktopFiles& paths) {
    const auto listing = listings_.of(folder);
    for (const FolderEntry& entry : *listing) {
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

/// The one of an ID that `collectDesktopFiles` would find, by the few names that it may have.
std::optional<std::string> ApplicationScanner::findDesktopFile(const std::string& folder, std::string_view identifier,
                                                               int depth) {
    std::vector<std::string> names{std::string(identifier) + std::string(kDesktopSuffix)};
    for (std::size_t dash = identifier.find('-', 1); dash != std::string_view::npos && depth < kMaxDesktopFolderDepth;
         dash = identifier.find('-', dash + 1)) {
        names.emplace_back(identifier.substr(0, dash));
    }
    std::ranges::sort(names);
    const auto listing = listings_.of(folder);
    for (const std::string& name : names) {
        const FolderEntry* entry = listing->find(name);
        if (entry == nullptr) continue;
        const std::string path = folder + "/" + name;
        if (!entry->isFolder) {
            if (name.size() > identifier.size()) return path;
        } else if (name.size() < identifier.size()) {
            if (auto found = findDesktopFile(path, identifier.substr(name.size() + 1), depth + 1)) return found;
        }
    }
    return std::nullopt;
}

/// Desktop files in the folder, and in its sub-folders from that depth on, may come, go and change.
void ApplicationScanner::watchDesktopFiles(WatchedFolders& watched, const std::string& folder, int depth) {
    watched.addContents(folder);
    const auto listing = listings_.of(folder);
    for (const FolderEntry& entry : *listing) {
        const std::string path = folder + "/" + entry.name;
        if (entry.isFolder) {
            if (depth < kMaxDesktopFolderDepth) watchDesktopFiles(watched, path, depth + 1);
        } else if (stemOf(entry.name)) {
            // Exported entries are links, which lead through the version that is installed.
            watched.add(path);
        }
    }
}

ApplicationScanner::ApplicationScanner(RegistrySources sources, ProblemLog& problems)
    : sources_(std::move(sources)), problems_(problems), entries_(std::make_shared<Entries>()) {
    entries_->languages = sources_.languages;
}

std::shared_ptr<ApplicationScanner::Entries> ApplicationScanner::entries() const {
    const std::lock_guard lock(mutex_);
    return entries_;
}

void ApplicationScanner::trust(std::shared_ptr<const WatchState> watch) {
    const std::lock_guard lock(mutex_);
    watch_ = std::move(watch);
    presented_ = {};
}

bool ApplicationScanner::setLanguages(const std::vector<std::string>& languages) {
    auto next = std::make_shared<Entries>();
    next->languages = languages;
    const std::lock_guard lock(mutex_);
    if (entries_->languages == languages) return false;
    entries_ = std::move(next);
    presented_ = {};
    return true;
}

std::vector<ApplicationPtr> ApplicationScanner::applications(ApplicationType type) {
    Found found = scan({.type = type});
    if (type == ApplicationType::system) {
        // One by one: where the user's are thousands, the system's are few, or the other way round.
        std::erase_if(found, [&](const auto& entry) {
            return scan({.type = ApplicationType::user, .identifier = &entry.first}).contains(entry.first);
        });
    }
    std::vector<ApplicationPtr> result;
    result.reserve(found.size());
    for (auto& [identifier, application] : found) {
        result.push_back(std::make_shared<const Application>(std::move(application)));
    }
    return result;
}

ApplicationPtr ApplicationScanner::application(const std::string& identifier, std::optional<Origin> origin,
                                               Aspect aspect) {
    if (!isUsableIdentifier(identifier)) return nullptr;
    std::shared_ptr<const WatchState> watch;
    if (aspect == Aspect::presentation) {
        const std::lock_guard lock(mutex_);
        watch = watch_;
    }
    const auto state = watch ? watch->current() : std::nullopt;
    if (!state) return find(identifier, origin, aspect);
    const std::string key = (origin ? std::string(nameOf(*origin)) : "any") + " " + identifier;
    const auto languages = entries();
    {
        const std::lock_guard lock(mutex_);
        if (presented_.state != *state || presented_.applications.size() >= kMaxCachedFiles) presented_ = {*state, {}};
        const auto known = presented_.applications.find(key);
        if (known != presented_.applications.end()) return known->second;
    }
    ApplicationPtr found = find(identifier, origin, aspect);
    const std::lock_guard lock(mutex_);
    // Another state may have begun, or other languages, while it was read.
    if (presented_.state == *state && entries_ == languages) presented_.applications.insert_or_assign(key, found);
    return found;
}

ApplicationPtr ApplicationScanner::find(const std::string& identifier, std::optional<Origin> origin, Aspect aspect) {
    for (const ApplicationType type : {ApplicationType::user, ApplicationType::system}) {
        Found found = scan({.type = type, .identifier = &identifier, .origin = origin, .aspect = aspect});
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
    const auto listing = listings_.of(folder);
    const std::string beginning = query.identifier ? *query.identifier : std::string();
    for (auto at = listing->firstWith(beginning); at != listing->end() && at->name.starts_with(beginning); ++at) {
        const FolderEntry& file = *at;
        const auto stem = stemOf(file.name);
        if (!stem || (query.identifier && !belongsTo(*stem, *query.identifier))) continue;
        const std::string path = folder + "/" + file.name;
        const auto entry = entryAt(path);
        if (!entry) continue;
        const bool named = entry->flatpakIdentifier && belongsTo(*stem, *entry->flatpakIdentifier);
        const std::string& identifier = named ? *entry->flatpakIdentifier : *stem;
        if (query.identifier && *query.identifier != identifier) continue;
        if (!acceptIdentifier(identifier, path, Origin::flatpak)) continue;
        auto [application, isFirst] = found.try_emplace(identifier);
        if (isFirst) {
            application->second = {
                .identifier = identifier,
                .origin = Origin::flatpak,
                .type = query.type,
                .containerPath = sources_.varApp + "/" + identifier,
                .localizedName = entry->localizedName,
                .sharesFiles = query.aspect == Aspect::everything && keepsDocuments(installation, identifier),
                .icon = entry->icon,
                .iconDirs = {installation + "/exports/share/icons"}};
        }
        if (*stem == identifier) beMain(application->second, *entry);
        add(application->second, *entry);
        problems_.settle(path);
    }
    return found;
}

ApplicationScanner::Found ApplicationScanner::scanSnaps(const std::string& folder, const Query& query) {
    Found found;
    if (sources_.snapHome.empty()) return found;
    const auto wanted = query.identifier ? snapInstanceOf(*query.identifier) : std::nullopt;
    if (query.identifier && !wanted) return found;
    const auto listing = listings_.of(folder);
    const std::string beginning(wanted ? withoutKey(*wanted) : std::string_view());
    for (auto entryAtName = listing->firstWith(beginning);
         entryAtName != listing->end() && entryAtName->name.starts_with(beginning); ++entryAtName) {
        const FolderEntry& file = *entryAtName;
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
    const bool ofUser = query.type == ApplicationType::user;
    Found found;
    const auto consider = [&](const std::string& identifier, const std::string& path) {
        if (auto application = desktopApplication(identifier, path, query.type)) {
            found.emplace(identifier, std::move(*application));
        }
    };
    if (query.identifier) {
        auto path = sources_.userDesktopDir.empty() ? std::nullopt
                                                    : findDesktopFile(sources_.userDesktopDir, *query.identifier, 0);
        if (path.has_value() != ofUser) return found;
        for (auto folder = sources_.systemDesktopDirs.begin(); !path && folder != sources_.systemDesktopDirs.end();
             ++folder) {
            path = findDesktopFile(*folder, *query.identifier, 0);
        }
        if (path) consider(*query.identifier, *path);
        return found;
    }
    DesktopFiles usersFiles;
    if (!sources_.userDesktopDir.empty()) collectDesktopFiles(sources_.userDesktopDir, "", 0, usersFiles);
    DesktopFiles paths;
    if (ofUser) {
        paths = std::move(usersFiles);
    } else {
        for (const std::string& folder : sources_.systemDesktopDirs) {
            DesktopFiles inFolder;
            collectDesktopFiles(folder, "", 0, inFolder);
            paths.merge(inFolder);
        }
        for (const auto& [identifier, path] : usersFiles) paths.erase(identifier);
    }
    for (const auto& [identifier, path] : paths) consider(identifier, path);
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
    const auto entries = this->entries();
    const auto entry = entries->files.load(path, [&](std::string_view content) -> Result<DesktopEntry> {
        if (!content.contains(neededKey)) return DesktopEntry{};
        return parseDesktopEntry(content, entries->languages);
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
