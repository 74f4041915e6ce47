#include "platform/registry/LinuxAppRegistry.h"

#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "platform/log/LineText.h"
#include "platform/registry/ApplicationScanner.h"
#include "platform/registry/IconFinder.h"
#include "platform/registry/ProblemLog.h"

namespace tarnwell::registry {

struct LinuxAppRegistry::State {
    State(RegistrySources sources, Roots& sharedRoots, log::Log& log)
        : roots(sharedRoots), problems(log), icons(sources), scanner(std::move(sources), problems) {}
    Roots& roots;
    ProblemLog problems;
    IconFinder icons;
    ApplicationScanner scanner;
};

namespace {

using State = LinuxAppRegistry::State;

constexpr const char* kDocumentBrowserKey = "UISupportsDocumentBrowser";
constexpr std::string_view kDocumentsSuffix = "/Documents";

std::string canonicalPath(const std::string& path) {
    std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), &std::free);
    return resolved ? std::string(resolved.get()) : std::string();
}

/// A data container by real path, and the URL that names it once its Documents folder is there.
class Container {
public:
    /// Whether the path may lead through links, or had none when it was written down.
    enum class Path { asDeclared, real };
    Container(std::string identifier, std::string path, Origin origin, Path kind)
        : identifier_(std::move(identifier)), path_(std::move(path)), origin_(origin), kind_(kind) {}

    std::optional<URL> url(State& state) const {
        {
            std::lock_guard lock(mutex_);
            if (!name_.empty()) return URL::file(name_);
        }
        const auto added = isVersioned() ? state.roots.addVersionedContainer(path_) : state.roots.addContainer(path_);
        if (!added) {
            state.problems.report(path_, "no documents of \"" + log::asOneLine(identifier_) + "\" in \"" +
                                             log::asOneLine(path_) + "\"; " + describe(added.error()));
            return std::nullopt;
        }
        // A link stands there now: the container moved, and is another application's unless that says where it is.
        if (kind_ == Path::real && !isVersioned() && realPathOf(state, *added) != path_) return std::nullopt;
        if (const auto owner = otherOwner(state, *added)) {
            state.problems.report(path_, "no documents of \"" + log::asOneLine(identifier_) + "\" in \"" +
                                             log::asOneLine(path_) + "\"; they are those of \"" +
                                             log::asOneLine(*owner) + "\"");
            return std::nullopt;
        }
        state.problems.settle(path_);
        std::lock_guard lock(mutex_);
        name_ = added->path();
        return URL::file(name_);
    }

    /// Links resolved, but for the one to a revision; nothing where there is no such folder.
    std::optional<std::string> realPath(State& state) const {
        if (const auto named = url(state)) {
            if (auto container = realPathOf(state, *named)) return container;
        }
        const std::size_t slash = path_.rfind('/');
        if (isVersioned() && slash != std::string::npos && slash > 0) {
            const std::string above = canonicalPath(path_.substr(0, slash));
            if (!above.empty() && !canonicalPath(path_).empty()) return above + path_.substr(slash);
            return std::nullopt;
        }
        std::string resolved = canonicalPath(path_);
        if (resolved.empty()) return std::nullopt;
        return resolved;
    }

    const std::string& path() const { return path_; }

private:
    /// True for a link to one of several revisions, which change places.
    bool isVersioned() const { return origin_ == Origin::snap; }
    static std::optional<std::string> realPathOf(State& state, const URL& url) {
        std::string documents = state.roots.realPath(url.appending("Documents").path());
        if (!documents.ends_with(kDocumentsSuffix)) return std::nullopt;
        documents.resize(documents.size() - kDocumentsSuffix.size());
        return documents;
    }
    /// A Flatpak that got another ID leaves a link at its former place, which leads to the container of the one that it
    /// is now. As long as that one is installed, the documents are shown as its own.
    std::optional<std::string> otherOwner(State& state, const URL& added) const {
        if (origin_ != Origin::flatpak) return std::nullopt;
        const auto container = realPathOf(state, added);
        if (!container) return std::nullopt;
        std::string name = container->substr(container->rfind('/') + 1);
        if (name == identifier_) return std::nullopt;
        const ApplicationPtr other =
            state.scanner.application(name, Origin::flatpak, ApplicationScanner::Aspect::presentation);
        if (!other || canonicalPath(other->containerPath) != *container) return std::nullopt;
        return name;
    }

    std::string identifier_;
    std::string path_;
    Origin origin_;
    Path kind_;
    mutable std::mutex mutex_;
    /// The path of the URL, once it is known. Each caller gets a URL with a cache of its own: the container's values
    /// are to be read afresh.
    mutable std::string name_;
};

std::map<std::string, bool> declaredValues(const Application& application, const std::set<std::string>& keys) {
    std::map<std::string, bool> values;
    if (application.supportsDocumentBrowser && keys.contains(kDocumentBrowserKey)) {
        values.emplace(kDocumentBrowserKey, *application.supportsDocumentBrowser);
    }
    return values;
}

std::string describeRecord(const std::string& identifier, Origin origin, const std::string& container) {
    return log::asOneLine(identifier) + " (" + std::string(nameOf(origin)) + ") at \"" + log::asOneLine(container) +
           "\"";
}

/// Of no application, the generic icon.
Result<icons::IconData> iconOf(State& state, const Application* application, int number) {
    const auto variant = icons::iconVariant(number);
    if (!variant) return failure(posixError(EINVAL, "there is no icon variant " + std::to_string(number)));
    Result<icons::IconData> found = failure(posixError(ENOENT, "it is not installed"));
    if (application != nullptr) {
        if (application->icon) {
            found = state.icons.find(*application->icon, application->iconDirs, *variant);
        } else {
            found = failure(posixError(ENOENT, "it names no icon"));
        }
        const std::string thing = "icon of " + application->identifier;
        if (found) {
            state.problems.settle(thing);
            return found;
        }
        state.problems.report(thing, "no icon of \"" + log::asOneLine(application->identifier) + "\"; " +
                                         log::asOneLine(describe(found.error())));
    }
    if (variant->scale == 1) return icons::genericIcon(variant->pixels());
    return found;
}

/// An application as it was when the registry looked.
class InstalledRecord final : public BundleRecord {
public:
    InstalledRecord(std::shared_ptr<State> state, ApplicationPtr application)
        : state_(std::move(state)),
          application_(std::move(application)),
          container_(application_->identifier, application_->containerPath, application_->origin,
                     Container::Path::asDeclared) {}

    std::optional<std::string> bundleIdentifier() const override { return application_->identifier; }
    std::optional<URL> dataContainerURL() const override { return container_.url(*state_); }
    std::optional<std::string> localizedName() const override { return application_->localizedName; }
    std::optional<std::map<std::string, bool>> infoValues(const std::set<std::string>& keys) const override {
        return declaredValues(*application_, keys);
    }
    bool supportsOpeningDocumentsInPlace() const override { return application_->opensDocuments; }
    bool isFileSharingEnabled() const override { return application_->sharesFiles; }
    Result<icons::IconData> iconData(int variant) const override {
        return iconOf(*state_, application_.get(), variant);
    }
    Origin origin() const override { return application_->origin; }
    ApplicationType type() const override { return application_->type; }
    ArchivedBundleRecord archived() const override {
        return {application_->identifier, container_.realPath(*state_), application_->origin, application_->type};
    }
    std::string description() const override {
        return describeRecord(application_->identifier, application_->origin, container_.path());
    }

private:
    std::shared_ptr<State> state_;
    ApplicationPtr application_;
    Container container_;
};

/// What an archive kept of an application, completed with what is installed now.
class ArchivedRecord final : public BundleRecord {
public:
    ArchivedRecord(std::shared_ptr<State> state, ArchivedBundleRecord archived)
        : state_(std::move(state)),
          archived_(std::move(archived)),
          container_(archived_.bundleIdentifier.value_or("(null)"), archived_.dataContainerPath.value_or(""),
                     archived_.origin, Container::Path::real) {}

    std::optional<std::string> bundleIdentifier() const override { return archived_.bundleIdentifier; }
    std::optional<URL> dataContainerURL() const override {
        // A damaged archive may hold any text.
        if (!container_.path().starts_with('/')) return std::nullopt;
        return container_.url(*state_);
    }
    std::optional<std::string> localizedName() const override {
        const ApplicationPtr application = installed(ApplicationScanner::Aspect::presentation);
        return application ? application->localizedName : std::nullopt;
    }
    std::optional<std::map<std::string, bool>> infoValues(const std::set<std::string>& keys) const override {
        const ApplicationPtr application = installed();
        return application ? declaredValues(*application, keys) : std::map<std::string, bool>();
    }
    bool supportsOpeningDocumentsInPlace() const override {
        const ApplicationPtr application = installed();
        return application && application->opensDocuments;
    }
    bool isFileSharingEnabled() const override {
        const ApplicationPtr application = installed();
        return application && application->sharesFiles;
    }
    Result<icons::IconData> iconData(int variant) const override {
        return iconOf(*state_, installed(ApplicationScanner::Aspect::presentation).get(), variant);
    }
    Origin origin() const override { return archived_.origin; }
    ApplicationType type() const override { return archived_.type; }
    ArchivedBundleRecord archived() const override { return archived_; }
    std::string description() const override {
        return describeRecord(archived_.bundleIdentifier.value_or("(null)"), archived_.origin, container_.path());
    }

private:
    ApplicationPtr installed(ApplicationScanner::Aspect aspect = ApplicationScanner::Aspect::everything) const {
        if (!archived_.bundleIdentifier) return nullptr;
        return state_->scanner.application(*archived_.bundleIdentifier, archived_.origin, aspect);
    }

    std::shared_ptr<State> state_;
    ArchivedBundleRecord archived_;
    Container container_;
};

}  // namespace

std::unique_ptr<LinuxAppRegistry> LinuxAppRegistry::create(RegistrySources sources, Roots& roots, log::Log& log) {
    auto state = std::make_shared<State>(std::move(sources), roots, log);
    return std::unique_ptr<LinuxAppRegistry>(new LinuxAppRegistry(std::move(state)));
}

void LinuxAppRegistry::enumerateApplications(ApplicationType type,
                                             const std::function<void(const BundleRecordPtr&)>& body) {
    for (ApplicationPtr& application : state_->scanner.applications(type)) {
        body(std::make_shared<InstalledRecord>(state_, std::move(application)));
    }
}

BundleRecordPtr LinuxAppRegistry::recordForBundleIdentifier(const std::string& bundleIdentifier) {
    ApplicationPtr application = state_->scanner.application(bundleIdentifier);
    if (!application) return nullptr;
    return std::make_shared<InstalledRecord>(state_, std::move(application));
}

BundleRecordPtr LinuxAppRegistry::recordFromArchive(const ArchivedBundleRecord& archived) {
    return std::make_shared<ArchivedRecord>(state_, archived);
}

bool LinuxAppRegistry::setLanguages(const std::vector<std::string>& languages) {
    return state_->scanner.setLanguages(languages);
}

std::vector<std::string> LinuxAppRegistry::languages() const { return state_->scanner.languages(); }

Result<std::unique_ptr<RegistryWatch>> LinuxAppRegistry::watch(std::function<void()> changed) {
    auto watch =
        RegistryWatch::create([state = state_] { return state->scanner.watchedFolders(); }, std::move(changed));
    if (watch) state_->scanner.trust((*watch)->state());
    return watch;
}

}  // namespace tarnwell::registry
