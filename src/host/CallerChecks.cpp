#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <ranges>
#include <string_view>

#include "host/Checks.h"
#include "platform/caller/ProcText.h"
#include "platform/filesystem/PlainFile.h"

namespace tarnwell::host {
namespace {

using State = Check::State;
using caller::Caller;

/// More are not looked at.
constexpr std::size_t kMostProcesses = 65'536;
constexpr std::string_view kHidePid = "hidepid=";

std::string textOfFile(const std::string& path, std::size_t limit) {
    const auto bytes = filesystem::readFile(path, limit);
    return bytes ? std::string(textOf(*bytes)) : std::string();
}

/// The numbers of the processes that procfs shows.
std::vector<pid_t> processesIn(const std::string& procFolder) {
    std::vector<pid_t> processes;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(procFolder.c_str()), ::closedir);
    if (!folder) return processes;
    while (const dirent* entry = ::readdir(folder.get())) {
        const std::string_view name = entry->d_name;
        pid_t process = 0;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), process);
        if (error != std::errc() || end != name.data() + name.size()) continue;
        if (processes.size() == kMostProcesses) break;
        processes.push_back(process);
    }
    return processes;
}

/// A process of that user that runs, and did not only leave its number behind.
bool isRunning(const std::string& folder, uid_t user) {
    const std::string status = textOfFile(folder + "/status", caller::kMaxProcText);
    const auto users = caller::usersOf(status);
    return users && users->front() == user && !status.contains("\nState:\tZ");
}

/// What the processes of this user would be to the service.
Check checkProcesses(const caller::Sources& sources) {
    constexpr std::size_t kKinds = 4;
    std::array<std::size_t, kKinds> counts{};
    std::string example;
    for (const pid_t process : processesIn(sources.procFolder)) {
        const std::string folder = sources.procFolder + "/" + std::to_string(process);
        if (!isRunning(folder, sources.user)) continue;
        const Caller caller =
            caller::identify({.process = process, .user = sources.user, .securityLabel = {}}, sources);
        if (caller.kind == Caller::Kind::unknown) {
            // It may have ended meanwhile.
            if (!isRunning(folder, sources.user)) continue;
            if (example.empty()) example = "process " + std::to_string(process) + ": " + caller.reason;
        }
        ++counts.at(static_cast<std::size_t>(caller.kind));
    }
    const auto count = [&counts](Caller::Kind kind) {
        return std::to_string(counts.at(static_cast<std::size_t>(kind)));
    };
    Check check{"callers, now running", State::good, {}, {}};
    check.finding = "of the processes of this user " + count(Caller::Kind::host) + " are of the host, " +
                    count(Caller::Kind::flatpak) + " of Flatpaks, " + count(Caller::Kind::snap) + " of Snaps";
    if (example.empty()) return check;
    check.state = State::note;
    check.finding += ", " + count(Caller::Kind::unknown) + " cannot be told (" + example + ")";
    check.advice = "the service shows nothing to those that cannot be told";
    return check;
}

/// What the mount of procfs says in "hidepid="; nothing where it hides none.
std::optional<std::string> hidePidOf(const std::string& procFolder) {
    constexpr std::size_t kMountPoint = 4;
    const std::string text = textOfFile(procFolder + "/self/mountinfo", caller::kMaxMountText);
    for (const auto line : text | std::views::split('\n')) {
        std::vector<std::string_view> fields;
        for (const auto field : line | std::views::split(' ')) fields.emplace_back(field.begin(), field.end());
        if (fields.size() <= kMountPoint || fields[kMountPoint] != procFolder) continue;
        for (const auto part : fields.back() | std::views::split(',')) {
            const std::string_view option(part.begin(), part.end());
            if (option.starts_with(kHidePid)) return std::string(option.substr(kHidePid.size()));
        }
    }
    return std::nullopt;
}

}  // namespace

std::vector<Check> checkCallers(const caller::Sources& sources, const std::string& appArmorSwitch) {
    const Caller own = caller::identify({.process = ::getpid(), .user = sources.user, .securityLabel = {}}, sources);
    Check first{"callers", State::good, "programs of the host and of sandboxes can be told apart", {}};
    if (own.kind != Caller::Kind::host) {
        first.state = State::warning;
        if (own.kind == Caller::Kind::unknown) {
            first.finding = "cannot be told apart: " + own.reason;
            first.advice = "the service refuses all of them; it needs a kernel from 5.8 on, and " + sources.procFolder;
        } else {
            first.finding = "this program runs within a sandbox (" + caller::describe(own) + ")";
            first.advice = "run the service outside of sandboxes, where it can tell who calls";
        }
        return {first};
    }
    std::vector<Check> checks{first, checkProcesses(sources)};
    const bool hasAppArmor = textOfFile(appArmorSwitch, caller::kMaxProcText).starts_with('Y');
    checks.push_back({"callers, Snaps",
                      hasAppArmor ? State::good : State::note,
                      hasAppArmor ? "told by AppArmor's labels and by control groups"
                                  : "told by control groups alone, since AppArmor is not in use",
                      {}});
    if (const auto hidden = hidePidOf(sources.procFolder)) {
        checks.push_back({"callers, hidepid",
                          State::note,
                          sources.procFolder + " hides processes (" + *hidden +
                              "), which changes nothing: of its own user it hides those only that nobody may look at",
                          {}});
    }
    return checks;
}

}  // namespace tarnwell::host
