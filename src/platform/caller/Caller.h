#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarnwell::caller {

/// Who stands behind a connection. The rules, and what they cannot tell, are in docs/callers.md.
struct Caller {
    enum class Kind : std::uint8_t {
        host,     ///< a program that no sandbox holds, as far as the kernel tells
        flatpak,  ///< a program in the sandbox of a Flatpak
        snap,     ///< a program of a Snap
        unknown,  ///< it cannot be told, so nothing may be shown to it
    };
    Kind kind = Kind::unknown;
    /// The Flatpak's ID, or the Snap's instance name with its key; empty for the other kinds.
    std::string application;
    /// Why it is unknown, one line for the log; empty for the other kinds. Holds no text of the caller's own making.
    std::string reason;
    friend bool operator==(const Caller&, const Caller&) = default;
};

std::string_view nameOf(Caller::Kind kind);
/// One line for the log: "host", "flatpak org.example.Notes", "unknown (the process ended)".
std::string describe(const Caller& caller);

/// What the bus tells of a connection.
struct Peer {
    pid_t process = 0;
    uid_t user = static_cast<uid_t>(-1);
    /// As it was when the connection was made, with or without the 0 at its end; nothing where the bus tells none.
    std::optional<std::string> securityLabel;
    /// A pidfd of the connection's process where the bus hands one over, else -1. Borrowed. With it a process that took
    /// the number of one that ended cannot be mistaken for it.
    int processDescriptor = -1;
};

/// Whom to ask.
struct Sources {
    std::string procFolder = "/proc";
    uid_t user = ::getuid();  ///< whose connections are answered at all
};

/// Looks at the process behind a connection. Whatever cannot be read, is damaged, contradicts itself or belongs to
/// another user is `unknown`. Any thread may call it; it keeps nothing. It waits for procfs and for files in memory
/// only, never for a file system that a sandbox may have brought along; of each text it reads at most a mebibyte. Takes
/// descriptors; where there are none left, callers are unknown.
Caller identify(const Peer& peer, const Sources& sources = {});

}  // namespace tarnwell::caller
