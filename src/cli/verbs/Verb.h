#pragma once

#include <CLI/App.hpp>
#include <memory>

#include "cli/verbs/Invocation.h"

namespace tarnwell::cli {

/// One verb of the program. Its arguments are filled in by the command line before it runs.
class Verb {
public:
    virtual ~Verb() = default;
    virtual const char* name() const = 0;
    /// One line for the list of verbs.
    virtual const char* summary() const = 0;
    /// A command to try, and what it does.
    virtual const char* example() const = 0;
    virtual void declare(CLI::App& /*command*/) {}
    virtual Outcome run(Invocation& invocation) = 0;
};

std::unique_ptr<Verb> makeAppsVerb();
std::unique_ptr<Verb> makeLsVerb();
std::unique_ptr<Verb> makeInfoVerb();
std::unique_ptr<Verb> makeIdVerb();
std::unique_ptr<Verb> makePathVerb();
std::unique_ptr<Verb> makeAnchorVerb();
std::unique_ptr<Verb> makeChangesVerb();
std::unique_ptr<Verb> makeImportVerb();
std::unique_ptr<Verb> makeMkdirVerb();
std::unique_ptr<Verb> makeRenameVerb();
std::unique_ptr<Verb> makeMoveVerb();
std::unique_ptr<Verb> makeTrashVerb();
std::unique_ptr<Verb> makeRestoreVerb();
std::unique_ptr<Verb> makeDeleteVerb();
std::unique_ptr<Verb> makeCleanTrashVerb();
std::unique_ptr<Verb> makeTagVerb();
std::unique_ptr<Verb> makeRankVerb();
std::unique_ptr<Verb> makeUsedVerb();
std::unique_ptr<Verb> makeSearchVerb();
std::unique_ptr<Verb> makeThumbnailVerb();
std::unique_ptr<Verb> makeRefreshVerb();
std::unique_ptr<Verb> makeDefaultContainerVerb();
std::unique_ptr<Verb> makeServeVerb();
std::unique_ptr<Verb> makeStatusVerb();
std::unique_ptr<Verb> makeDoctorVerb();
std::unique_ptr<Verb> makeKnownLibrariesVerb();

}  // namespace tarnwell::cli
