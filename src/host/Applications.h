#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/ProgramContext.h"
#include "session/Session.h"

namespace tarnwell::host {

/// The applications that keep documents here, as one client sees them. Any thread may call any operation.
class Applications {
public:
    explicit Applications(ProgramContext& context) : context_(context) {}

    std::vector<session::Application> list() const;
    /// Looks at what is installed now. The first time it is compared with what the last run of the program left behind,
    /// later, and in a program that stays, with what was known right before.
    session::Refreshed refresh();
    /// Invalid parameter, with the rest of a sentence, where there is none.
    Result<session::Item> libraryOf(const std::string& bundleIdentifier) const;

private:
    using Folders = std::map<session::ItemIdentifier, std::string>;
    std::vector<hostframework::ProviderItemPtr> libraries() const;
    Folders foldersBefore();

    ProgramContext& context_;
    std::mutex refreshMutex_;
    bool hasRefreshed_ = false;
};

}  // namespace tarnwell::host
