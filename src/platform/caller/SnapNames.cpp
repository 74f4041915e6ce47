#include "platform/caller/SnapNames.h"

#include <algorithm>
#include <cerrno>

#include "platform/registry/BundleIdentifier.h"

namespace tarnwell::caller {
namespace {

using Name = Result<std::optional<std::string>>;

constexpr std::string_view kSnap = "snap.";

std::unexpected<Error> unclear(const char* message) { return failure(posixError(EBADMSG, message)); }

bool isNameByte(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

/// Takes what stands before the separator, and the separator, from the text; all of it where there is none.
std::string_view takeUntil(std::string_view& text, std::string_view separator) {
    const std::size_t end = text.find(separator);
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + separator.size());
    return taken;
}

/// The instance of "<instance>.<program>", where a program may be "hook.<hook>"; empty for anything else.
std::string_view instanceOf(std::string_view text) {
    const std::string_view instance = takeUntil(text, ".");
    if (!registry::isSnapInstanceName(instance)) return {};
    if (text.empty() || text.starts_with('.') || !std::ranges::all_of(text, isNameByte)) return {};
    return instance;
}

/// One more place names a Snap, or none.
Result<void> join(std::optional<std::string>& found, const Name& name, const char* contradiction) {
    if (!name) return failure(name.error());
    if (!*name) return {};
    if (found && *found != **name) return unclear(contradiction);
    found = *name;
    return {};
}

/// "snap.notes.notes" of "snap.notes.notes (enforce)".
std::string_view withoutMode(std::string_view label) {
    const std::size_t begin = label.rfind(" (");
    if (begin == std::string_view::npos || !label.ends_with(')')) return label;
    const std::string_view mode = label.substr(begin + 2, label.size() - begin - 3);
    return std::ranges::all_of(mode, [](char c) { return c >= 'a' && c <= 'z'; }) ? label.substr(0, begin) : label;
}

Name snapOfProfile(std::string_view profile) {
    // What stands behind the colon is a profile of a container's own making.
    if (profile.starts_with(':')) return unclear("its security label is of another namespace of profiles");
    // The programs that build Snaps' sandboxes: whoever bears such a label is about to become some Snap.
    if (profile.starts_with("snap-") || profile.contains("/snapd/")) {
        return unclear("its security label is of a program that starts Snaps");
    }
    if (!profile.starts_with(kSnap)) return std::nullopt;
    profile.remove_prefix(kSnap.size());
    // Profiles within a profile ("//") belong to the same Snap.
    const std::string_view instance = instanceOf(takeUntil(profile, "//"));
    if (instance.empty()) return unclear("its security label is of a Snap without a proper name");
    return std::string(instance);
}

Name snapOfGroup(std::string_view group) {
    if (!group.starts_with(kSnap)) return std::nullopt;
    // Groups of units with a common quota, whose name is not that of a Snap.
    if (group.ends_with(".slice")) return std::nullopt;
    group.remove_prefix(kSnap.size());
    if (registry::isSnapInstanceName(group)) return std::string(group);
    for (const std::string_view suffix : {".scope", ".service"}) {
        if (!group.ends_with(suffix)) continue;
        const std::string_view instance = instanceOf(group.substr(0, group.size() - suffix.size()));
        if (!instance.empty()) return std::string(instance);
    }
    return unclear("its control group is of a Snap without a proper name");
}

}  // namespace

Name snapOfLabel(std::string_view label) {
    while (label.ends_with('\0') || label.ends_with('\n')) label.remove_suffix(1);
    const auto isControl = [](unsigned char c) { return c < ' ' || c == 0x7f; };
    if (label.size() > kMaxLabel || std::ranges::any_of(label, isControl)) {
        return unclear("its security label is not a line of text");
    }
    label = withoutMode(label);
    std::optional<std::string> found;
    while (!label.empty()) {
        auto joined = join(found, snapOfProfile(takeUntil(label, "//&")), "its security label is of two Snaps");
        if (!joined) return failure(joined.error());
    }
    return found;
}

Name snapOfControlGroups(std::string_view cgroup) {
    std::optional<std::string> found;
    while (!cgroup.empty()) {
        // "<number>:<controllers>:<path>", where the path may hold further colons.
        std::string_view path = takeUntil(cgroup, "\n");
        takeUntil(path, ":");
        takeUntil(path, ":");
        if (!path.starts_with('/')) return unclear("its control groups are not told as lines");
        while (!path.empty()) {
            auto joined = join(found, snapOfGroup(takeUntil(path, "/")), "its control groups are of two Snaps");
            if (!joined) return failure(joined.error());
        }
    }
    return found;
}

}  // namespace tarnwell::caller
