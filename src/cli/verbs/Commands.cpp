#include "cli/verbs/Commands.h"

namespace tarnwell::cli {

Commands::Commands()
    : app("Shows this device's documents, one library for each application, under identifiers that last.", "tarnwell") {
    app.set_version_flag("--version", "tarnwell " TARNWELL_VERSION);
    app.require_subcommand(0, 1);
    app.get_formatter()->label("SUBCOMMAND", "VERB");
    app.get_formatter()->label("Subcommands", "Verbs");
    app.footer(
        "tarnwell VERB --help says more about a verb. Exit status: 0 done, 1 failed, 2 wrong usage, 3 anchor expired.");

    storageOption = app.add_option("--storage", storage,
                                   "The storage root; otherwise TARNWELL_STORAGE, or the "
                                   "documents folder of this session")
                        ->type_name("DIR");
    app.add_flag("--json", options.json, "One JSON object a line");
    app.add_flag("-v,--verbose", options.verbose, "Show the whole log on standard error");
    app.add_flag("--local", options.local, "Load the provider in this process even if the service is running");

    verbs.push_back(makeAppsVerb());
    verbs.push_back(makeLsVerb());
    verbs.push_back(makeSearchVerb());
    verbs.push_back(makeInfoVerb());
    verbs.push_back(makeIdVerb());
    verbs.push_back(makePathVerb());
    verbs.push_back(makeAnchorVerb());
    verbs.push_back(makeChangesVerb());
    verbs.push_back(makeImportVerb());
    verbs.push_back(makeMkdirVerb());
    verbs.push_back(makeRenameVerb());
    verbs.push_back(makeMoveVerb());
    verbs.push_back(makeTrashVerb());
    verbs.push_back(makeRestoreVerb());
    verbs.push_back(makeDeleteVerb());
    verbs.push_back(makeCleanTrashVerb());
    verbs.push_back(makeTagVerb());
    verbs.push_back(makeRankVerb());
    verbs.push_back(makeUsedVerb());
    verbs.push_back(makeThumbnailVerb());
    verbs.push_back(makeRefreshVerb());
    verbs.push_back(makeDefaultContainerVerb());
    verbs.push_back(makeServeVerb());
    verbs.push_back(makeStatusVerb());
    verbs.push_back(makeDoctorVerb());
    verbs.push_back(makeKnownLibrariesVerb());
    for (const auto& verb : verbs) {
        CLI::App* command = app.add_subcommand(verb->name(), verb->summary());
        command->fallthrough();
        verb->declare(*command);
    }
}

}  // namespace tarnwell::cli
