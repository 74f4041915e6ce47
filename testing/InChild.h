#pragma once

#include <functional>
#include <optional>
#include <string>

namespace tarnwell::testing {

/// Runs `body` in a forked child, which may change its identity, its limits and its mounts. Gives the text that it
/// returned, "" for a success; more, if the child did not end well. For processes of one thread.
std::string inChild(const std::function<std::string()>& body);

/// Gives the calling process a user namespace of its own, in which it is the same user; the reason why not. The
/// kernel's limits in /proc/sys/user can be lowered in there. For processes of one thread.
std::optional<std::string> becomeOwnerOfUserNamespace();

/// Gives the calling process mounts of its own, which nobody else sees (in a user namespace of its own unless it is
/// root); the reason why not.
std::optional<std::string> becomeOwnerOfMounts();

}  // namespace tarnwell::testing
