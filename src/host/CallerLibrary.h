#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "applibraries/LocalAppLibraryManager.h"
#include "platform/caller/Caller.h"
#include "platform/registry/AppRegistry.h"

namespace tarnwell::host {

/// What of the storage a caller may see and change. What was not asked for yet is nothing.
struct CallerScope {
    enum class Kind : std::uint8_t {
        nothing,
        library,     ///< its own library, and nothing else
        everything,  ///< as the person who runs the program
    };
    Kind kind = Kind::nothing;
    /// The application whose library it is; null for the other kinds.
    registry::BundleRecordPtr library;
    /// Why it is nothing, one line for the log; empty for the other kinds.
    std::string reason;
};

/// A program of the host sees everything. A Flatpak sees the library that the registry found as a Flatpak's of that
/// very ID, a Snap the one that it found as that of the very instance: there the data container follows from the name.
/// A desktop entry of the same identifier is not theirs: anybody who can write one could choose the container. Without
/// such a record, and for an unknown caller, it is nothing. Any thread.
CallerScope scopeOf(const caller::Caller& caller, const std::vector<registry::BundleRecordPtr>& records);
/// The same among the app libraries of a generation.
CallerScope scopeOf(const caller::Caller& caller, const applibraries::AppLibraryGeneration& libraries);

}  // namespace tarnwell::host
