#include "platform/caller/Caller.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include "platform/caller/FlatpakInfo.h"
#include "platform/caller/ProcText.h"
#include "platform/caller/ProcessEnd.h"
#include "platform/caller/ProcessFolder.h"
#include "platform/caller/SnapNames.h"

namespace tarnwell::caller {
namespace {

using Links = ObjectHandle::Links;

constexpr const char* kFlatpakInfo = ".flatpak-info";

Caller unknown(std::string reason) { return {Caller::Kind::unknown, {}, std::move(reason)}; }

/// Our own sentence where the error has one, else what the kernel said of the attempt.
std::string sentence(const std::string& attempt, const Error& error) {
    const auto message = error.userInfo.find(kErrorMessage);
    return message != error.userInfo.end() ? message->second : attempt + ": " + describe(error);
}

std::unexpected<Error> doubt(std::string message) { return failure(posixError(EBADMSG, std::move(message))); }
std::unexpected<Error> doubt(const std::string& attempt, const Error& error) { return doubt(sentence(attempt, error)); }

/// The security label that the process has now; nothing where no security module labels processes.
Result<std::optional<std::string>> labelNow(const ProcessFolder& process) {
    // The first file is AppArmor's own. The other is that of whichever module comes first, and on older kernels the
    // only one.
    for (const char* file : {"attr/apparmor/current", "attr/current"}) {
        auto label = process.read(file, kMaxLabel);
        if (label && !label->empty()) return std::move(*label);
        if (!label && label.error().code != ENOENT && label.error().code != EINVAL) return failure(label.error());
    }
    return std::nullopt;
}

Result<void> checkUser(const ProcessFolder& process, uid_t user) {
    const auto status = process.read("status", kMaxProcText);
    if (!status) return doubt("its user cannot be told", status.error());
    const auto users = usersOf(*status);
    if (!users) return doubt("its user cannot be told");
    // A program that may change into another user is not quite this user's.
    if (std::ranges::any_of(*users, [user](uid_t other) { return other != user; })) {
        return doubt("the process is of another user");
    }
    return {};
}

/// The Snap that the process is of; nothing where it is of none.
Result<std::optional<std::string>> snapOf(const ProcessFolder& process, const std::optional<std::string>& labelThen) {
    std::vector<std::optional<std::string>> names;
    const auto add = [&names](Result<std::optional<std::string>> name) -> Result<void> {
        if (!name) return failure(name.error());
        if (*name) names.push_back(std::move(*name));
        return {};
    };
    // A connection may outlive a change of profile, so both labels count: the one it was made under, and the present
    // one.
    if (labelThen) {
        if (auto added = add(snapOfLabel(*labelThen)); !added) return failure(added.error());
    }
    const auto label = labelNow(process);
    if (!label) return doubt("its security label cannot be read", label.error());
    if (*label) {
        if (auto added = add(snapOfLabel(**label)); !added) return failure(added.error());
    }
    const auto groups = process.read("cgroup", kMaxProcText);
    if (groups) {
        if (auto added = add(snapOfControlGroups(*groups)); !added) return failure(added.error());
    } else if (groups.error().code != ENOENT) {
        return doubt("its control groups cannot be read", groups.error());
    }
    if (names.empty()) return std::nullopt;
    if (std::ranges::adjacent_find(names, std::not_equal_to()) != names.end()) {
        return doubt("its security labels and its control groups name different Snaps");
    }
    return names.front();
}

/// What a process sees as its system.
struct Surroundings {
    ObjectHandle root;
    ObjectNumber users;
    ObjectNumber mounts;
};

Result<Surroundings> surroundingsOf(const ProcessFolder& process) {
    auto root = process.root();
    if (!root) return failure(root.error());
    const auto users = process.namespaceNumber("user");
    if (!users) return failure(users.error());
    const auto mounts = process.namespaceNumber("mnt");
    if (!mounts) return failure(mounts.error());
    return Surroundings{std::move(*root), *users, *mounts};
}

/// Whether an object lies on a file system in memory, which answers at once whoever made it.
Result<bool> isInMemory(const ProcessFolder& process, const ObjectHandle& object) {
    const auto mounts = process.read("mountinfo", kMaxMountText);
    if (!mounts) return doubt("its mounts cannot be read", mounts.error());
    return fileSystemOf(*mounts, object.mount()) == "tmpfs";
}

/// The Flatpak in whose sandbox the process is; nothing where its sandbox, if any, is no Flatpak's.
Result<std::optional<std::string>> flatpakOf(const ProcessFolder& process, const Surroundings& its,
                                             const Surroundings& ours) {
    const bool isOurSystem = its.root.number() == ours.root.number() && its.mounts == ours.mounts;
    // Flatpak builds its sandboxes in memory. Another root may be on a file system that its own program runs, and that
    // lets us wait for ever: nothing is looked up there.
    if (!isOurSystem) {
        const auto rootInMemory = isInMemory(process, its.root);
        if (!rootInMemory) return failure(rootInMemory.error());
        if (!*rootInMemory) return std::nullopt;
    }
    const auto file = ObjectHandle::open(its.root.descriptor(), kFlatpakInfo, Links::refuse);
    if (!file && file.error().code == ENOENT) return std::nullopt;
    if (!file) return doubt("its .flatpak-info cannot be found", file.error());
    // The file is mostly a mount of its own.
    if (!isOurSystem) {
        const auto fileInMemory = isInMemory(process, *file);
        if (!fileInMemory) return failure(fileInMemory.error());
        if (!*fileInMemory) return doubt("its .flatpak-info is not one that Flatpak made");
    }
    const auto content = readRegularFile(*file, kMaxFlatpakInfo);
    if (!content) return doubt("its .flatpak-info cannot be read", content.error());
    auto application = applicationOfFlatpakInfo(*content);
    if (!application)
        return doubt("its .flatpak-info is not right; " + sentence("it cannot be read", application.error()));
    return std::move(*application);
}

Caller callerIn(const ProcessFolder& process, const Peer& peer, const Sources& sources) {
    if (const auto checked = checkUser(process, sources.user); !checked) return unknown(sentence("", checked.error()));
    const auto own = ProcessFolder::open(sources.procFolder + "/self");
    if (!own) return unknown(sentence("our own process cannot be looked at", own.error()));
    const auto ours = surroundingsOf(*own);
    if (!ours) return unknown(sentence("our own process cannot be looked at", ours.error()));
    // The kernel refuses this for a process that lets nobody look at it, and sandboxes may be among those.
    const auto its = surroundingsOf(process);
    if (!its) return unknown(sentence("the process cannot be looked at", its.error()));

    auto snap = snapOf(process, peer.securityLabel);
    if (!snap) return unknown(sentence("it cannot be told whether it is a Snap", snap.error()));
    auto flatpak = flatpakOf(process, *its, *ours);
    if (!flatpak) return unknown(sentence("it cannot be told whether it is a Flatpak", flatpak.error()));
    if (*snap && *flatpak) return unknown("it seems to be a Snap and a Flatpak");
    if (*snap) return {Caller::Kind::snap, std::move(**snap), {}};
    if (*flatpak) return {Caller::Kind::flatpak, std::move(**flatpak), {}};

    if (its->users != ours->users) return unknown("the process is in a user namespace that is not ours");
    if (its->root.number() != ours->root.number()) return unknown("the process has a root folder that is not ours");
    if (its->mounts != ours->mounts) return unknown("the process has mounts that are not ours");
    return {Caller::Kind::host, {}, {}};
}

}  // namespace

std::string_view nameOf(Caller::Kind kind) {
    switch (kind) {
        case Caller::Kind::host:
            return "host";
        case Caller::Kind::flatpak:
            return "flatpak";
        case Caller::Kind::snap:
            return "snap";
        case Caller::Kind::unknown:
            break;
    }
    return "unknown";
}

std::string describe(const Caller& caller) {
    std::string text(nameOf(caller.kind));
    if (!caller.application.empty()) text += " " + caller.application;
    if (!caller.reason.empty()) text += " (" + caller.reason + ")";
    return text;
}

Caller identify(const Peer& peer, const Sources& sources) {
    if (peer.user != sources.user) return unknown("the connection is of another user");
    if (peer.process <= 0) return unknown("the bus names no process");
    const auto end = peer.processDescriptor >= 0 ? ProcessEnd::ofDescriptor(peer.processDescriptor, peer.process)
                                                 : ProcessEnd::ofNumber(peer.process);
    if (!end) return unknown(sentence("the process cannot be found", end.error()));
    const auto process = ProcessFolder::open(sources.procFolder + "/" + std::to_string(peer.process));
    if (!process) return unknown(sentence("the process cannot be looked at", process.error()));
    Caller caller = callerIn(*process, peer, sources);
    // Only now is it sure that all of this was read of one process: the number may have been somebody else's by then.
    if (end->hasCome()) return unknown("the process ended");
    return caller;
}

}  // namespace tarnwell::caller
