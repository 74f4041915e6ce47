#pragma once

#include <map>
#include <string>
#include <vector>

#include "testing/TemporaryDirectory.h"

namespace tarnwell::testing {

/// A home in which the real flatpak installs from a repository of the test's own: a runtime and applications of a few
/// files each. Nothing is asked of any other place. What may fail gives the trouble, "" for none.
class FlatpakHome {
public:
    /// `busAddress` is the session's bus; there is none of the system.
    explicit FlatpakHome(std::string busAddress);

    static bool isFlatpakInstalled();
    /// Puts the runtime of all applications into the repository, with copies of the programs and of the libraries that
    /// they are linked with, and installs it.
    std::string begin(const std::vector<std::string>& programs = {}) const;

    std::string path(const std::string& relative) const { return directory_.path(relative); }
    std::string home() const { return path("home"); }
    /// What makes a program see this home and its installations.
    std::map<std::string, std::string> variables() const;

    /// Runs flatpak; blanks separate what a shell would separate. REPOSITORY stands for the test's own.
    std::string run(std::string arguments) const;
    /// What the last run wrote to standard output.
    std::string printed() const;

    /// Puts a version of an application into the repository.
    std::string publish(const std::string& identifier, const std::string& name, const std::string& permissions) const;
    /// Puts a version into the repository that says that the application goes on under another ID.
    std::string endInFavourOf(const std::string& identifier, const std::string& successor) const;
    std::string install(const std::string& identifier) const;
    std::string update() const;

    std::string containerOf(const std::string& identifier) const { return path("home/.var/app/" + identifier); }
    /// A path in the folder in which an application keeps its documents.
    std::string document(const std::string& identifier, const std::string& name) const {
        return containerOf(identifier) + "/Documents/" + name;
    }

private:
    bool attempt(std::string arguments) const;

    TemporaryDirectory directory_;
    std::string busAddress_;
};

}  // namespace tarnwell::testing
