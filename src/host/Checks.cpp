#include "host/Checks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "platform/base/Descriptor.h"
#include "platform/filesystem/Beneath.h"
#include "platform/filesystem/PlainFile.h"
#include "platform/icons/RenderProcess.h"

namespace tarnwell::host {
namespace {

using State = Check::State;

bool isFolder(const std::string& path) {
    struct stat status{};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string nearestExisting(std::string path) {
    while (path.size() > 1 && ::access(path.c_str(), F_OK) != 0) {
        const std::size_t slash = path.rfind('/');
        path.resize(slash == 0 || slash == std::string::npos ? 1 : slash);
    }
    return path;
}

std::optional<unsigned long> numberIn(const std::string& path) {
    const auto bytes = filesystem::readFile(path, 64);
    if (!bytes) return std::nullopt;
    const std::string text(textOf(*bytes));
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 10);
    return end == text.c_str() ? std::nullopt : std::optional(value);
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(separator, begin), text.size());
        if (end > begin) parts.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

}  // namespace

std::string_view nameOf(Check::State state) {
    switch (state) {
        case State::good:
            return "good";
        case State::note:
            return "note";
        case State::warning:
            return "warning";
        case State::broken:
            return "broken";
    }
    return "?";
}

Check checkStorageRoot(const Settings& settings) {
    const std::string& path = settings.storageRoot;
    Check check{"storage root", State::good, path + " (from " + settings.storageRootOrigin + ")", {}};
    struct stat status{};
    if (::stat(path.c_str(), &status) != 0) {
        const int code = errno;
        check.state = State::broken;
        check.finding += code == ENOENT ? " does not exist" : std::string(" cannot be used: ") + std::strerror(code);
        check.advice = "make that folder, or name another one with --storage or TARNWELL_STORAGE";
    } else if (!S_ISDIR(status.st_mode)) {
        check.state = State::broken;
        check.finding += " is no folder";
        check.advice = "name a folder with --storage or TARNWELL_STORAGE";
    } else if (::access(path.c_str(), R_OK | X_OK) != 0) {
        check.state = State::broken;
        check.finding += " may not be read";
        check.advice = "give this person read and search permission for it";
    } else if (::access(path.c_str(), W_OK) != 0) {
        check.state = State::warning;
        check.finding += " may be read but not written";
        check.advice = "documents can be listed but not changed; give write permission if they should be";
    }
    return check;
}

Check checkAttributes(const std::string& subject, const std::string& folder) {
    Check check{subject, State::good, "extended attributes are supported", {}};
    // Asking for one that is not there tells the same as setting one, and leaves no trace.
    if (::getxattr(folder.c_str(), "user.com.vellum.lastuseddate#PS", nullptr, 0) >= 0 || errno == ENODATA)
        return check;
    const int code = errno;
    if (code == EOPNOTSUPP) {
        check.state = State::warning;
        check.finding = "the file system of " + folder + " keeps no extended attributes";
        check.advice = "tags, favourites, dates of use and the trash need them; use a file system that has them";
    } else {
        check.state = State::broken;
        check.finding = "extended attributes of " + folder + " cannot be read: " + std::strerror(code);
        check.advice = "check the folder and its permissions";
    }
    return check;
}

Check checkFileSystem(const std::string& subject, const std::string& folder) {
    Check check{subject, State::good, "this kernel tells of every change of " + folder, {}};
    const Descriptor place(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const auto status = filesystem::statusOf(place.get());
    if (!status) {
        check.state = State::broken;
        check.finding = folder + " cannot be looked at: " + describe(status.error());
        check.advice = "check the folder and its permissions";
        return check;
    }
    const bool isTold = !filesystem::isChangedElsewhere(place.get());
    if (!isTold) {
        check.state = State::note;
        check.finding = folder +
                        " can change without this kernel telling (FUSE or a network): it is polled, each folder "
                        "with every request and while somebody follows every two seconds";
    }
    if (!filesystem::isBirthTime(status->birth)) {
        check.state = State::warning;
        check.finding =
            (isTold ? folder : check.finding + "; the file system") +
            " keeps no times of birth: a new file that gets the number of one that was just removed has its "
            "identifier, too";
        check.advice = "keep documents whose identifiers have to last on a file system of this device";
    }
    return check;
}

Check checkWritable(const std::string& subject, const std::string& folder) {
    const std::string existing = nearestExisting(folder);
    if (isFolder(existing) && ::access(existing.c_str(), W_OK | X_OK) == 0) {
        return {subject, State::good, folder + (existing == folder ? "" : " (made when it is needed)"), {}};
    }
    return {subject, State::broken, folder + " cannot be written",
            "give write permission for " + existing + ", or choose another place by the environment"};
}

std::vector<Check> checkWatchLimits(const std::string& procFolder) {
    struct Limit {
        const char* file;
        const char* subject;
        unsigned long few;  ///< below this, large storages go short
    };
    static constexpr Limit limits[] = {{"inotify/max_user_watches", "inotify watches", 8192},
                                       {"inotify/max_user_instances", "inotify instances", 16},
                                       {"inotify/max_queued_events", "inotify event queue", 1024},
                                       {"fanotify/max_user_marks", "fanotify marks", 8192},
                                       {"fanotify/max_user_groups", "fanotify groups", 16},
                                       {"fanotify/max_queued_events", "fanotify event queue", 1024}};
    std::vector<Check> checks;
    for (const Limit& limit : limits) {
        const auto value = numberIn(procFolder + "/" + limit.file);
        if (!value) {
            checks.push_back({limit.subject, State::note, "this kernel does not tell", {}});
        } else if (*value < limit.few) {
            checks.push_back({limit.subject, State::warning, "at most " + std::to_string(*value),
                              std::string("raise ") + procFolder + "/" + limit.file + " for large storages"});
        } else {
            checks.push_back({limit.subject, State::good, "at most " + std::to_string(*value), {}});
        }
    }
    return checks;
}

std::vector<Check> checkRegistrySources(const registry::RegistrySources& sources) {
    std::vector<Check> checks;
    const auto add = [&](const std::string& subject, const std::string& folder) {
        if (folder.empty()) return;
        checks.push_back({subject,
                          isFolder(folder) ? State::good : State::note,
                          folder + (isFolder(folder) ? "" : " (not there)"),
                          {}});
    };
    add("Flatpak, this user", sources.flatpakUserDir);
    for (const auto& folder : sources.flatpakSystemDirs) add("Flatpak, system", folder);
    for (const auto& folder : sources.snapDesktopDirs) add("Snap", folder);
    add("desktop entries, this user", sources.userDesktopDir);
    for (const auto& folder : sources.systemDesktopDirs) add("desktop entries, system", folder);
    return checks;
}

Check checkFileTypes(const Settings& settings, const Settings::Lookup& variable) {
    std::vector<std::string> folders{settings.applicationSupport};
    for (const auto& folder : split(variable("XDG_DATA_DIRS").value_or("/usr/local/share:/usr/share"), ':')) {
        folders.push_back(folder);
    }
    for (const auto& folder : folders) {
        const std::string cache = folder + "/mime/mime.cache";
        if (::access(cache.c_str(), R_OK) == 0) return {"file types", State::good, cache, {}};
    }
    return {"file types", State::broken, "there is no database of file types", "install the package shared-mime-info"};
}

Check checkIconRenderer(const std::string& program) {
    constexpr unsigned kSide = 48;
    constexpr std::chrono::seconds kPatience{5};
    Check check{"icons", State::good, {}, {}};
    const auto began = std::chrono::steady_clock::now();
    if (const auto drawn = icons::renderInProcess(program, icons::genericIcon(kSide), kPatience)) {
        const auto took =
            std::chrono::ceil<std::chrono::milliseconds>(std::chrono::steady_clock::now() - began).count();
        check.finding = "drawn in " + std::to_string(took) + " ms";
    } else {
        check.state = State::warning;
        check.finding = "cannot be drawn: " + describe(drawn.error());
        check.advice = "thumbnails need tarnwell-render-icon beside the program";
    }
    return check;
}

Check checkStore(const session::Status& status) {
    Check check{"store", State::good, status.storeDirectory, {}};
    switch (status.storeOrigin) {
        case session::StoreOrigin::created:
            check.finding += ", new";
            break;
        case session::StoreOrigin::reopened:
            break;
        case session::StoreOrigin::recoveredAfterDamage:
            check.state = State::warning;
            check.finding += ", made anew because the old one was damaged";
            check.advice = "identifiers of documents have changed; the damaged file is kept beside for a look";
            break;
    }
    check.finding += ", " + std::to_string(status.objects) + " objects, position " + std::to_string(status.journalEnd) +
                     ", identity " + status.storeUUID;
    return check;
}

std::vector<Check> checkAppLibraries(const std::vector<session::Application>& applications) {
    std::vector<Check> checks;
    checks.push_back({"app libraries", State::good, std::to_string(applications.size()) + " found", {}});
    for (const auto& application : applications) {
        Check check = checkAttributes("app library", application.item.path);
        if (check.state != State::good) checks.push_back(std::move(check));
    }
    return checks;
}

}  // namespace tarnwell::host
