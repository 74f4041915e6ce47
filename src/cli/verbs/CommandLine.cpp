#include "cli/verbs/CommandLine.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "cli/output/Text.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

void complain(std::string_view message) {
    const std::string line = "tarnwell: " + std::string(message) + "\n";
    std::fputs(line.c_str(), stderr);
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

/// Each line moved to the right.
std::string indented(std::string_view text) {
    std::string result = "  ";
    for (const char c : text) result += c == '\n' ? std::string("\n  ") : std::string(1, c);
    return result;
}

int exitCode(ExitStatus status) { return static_cast<int>(status); }

/// Runs the verb and says what there is to say about it.
ExitStatus runVerb(Verb& verb, const GlobalOptions& options) {
    Output output(stdout, Output::wantsColours(stdout));
    Invocation invocation(options, output);
    const Outcome outcome = verb.run(invocation);
    output.flush();
    if (!outcome) {
        complain(outcome.error().message);
        return outcome.error().status;
    }
    for (const auto& line : invocation.heldLines()) complain(toDisplay(line));
    if (!output.failed()) return ExitStatus::done;
    // A reader that has seen enough is no failure; anything else lost lines that somebody wanted.
    if (*output.failed() == EPIPE) return ExitStatus::done;
    complain(std::string("the output could not be written: ") + std::strerror(*output.failed()));
    return ExitStatus::failed;
}

}  // namespace

int runCommandLine(int argumentCount, const char* const* arguments) {
    CLI::App app("Shows this device's documents, one library for each application, under identifiers that last.",
                 "tarnwell");
    app.set_version_flag("--version", "tarnwell " TARNWELL_VERSION);
    app.require_subcommand(0, 1);
    app.get_formatter()->label("SUBCOMMAND", "VERB");
    app.get_formatter()->label("Subcommands", "Verbs");
    app.footer(
        "tarnwell VERB --help says more about a verb. Exit status: 0 done, 1 failed, 2 wrong usage, 3 anchor expired.");

    GlobalOptions options;
    std::string storage;
    auto* storageOption = app.add_option("--storage", storage,
                                         "The storage root; otherwise TARNWELL_STORAGE, or the "
                                         "documents folder of this session")
                              ->type_name("DIR");
    app.add_flag("--json", options.json, "One JSON object a line");
    app.add_flag("-v,--verbose", options.verbose, "Show the whole log on standard error");

    std::vector<std::unique_ptr<Verb>> verbs;
    verbs.push_back(makeAppsVerb());
    verbs.push_back(makeLsVerb());
    verbs.push_back(makeInfoVerb());
    verbs.push_back(makeIdVerb());
    verbs.push_back(makePathVerb());
    verbs.push_back(makeAnchorVerb());
    verbs.push_back(makeDoctorVerb());
    for (const auto& verb : verbs) {
        CLI::App* command = app.add_subcommand(verb->name(), verb->summary());
        command->footer("Example:\n" + indented(verb->example()));
        command->fallthrough();
        verb->declare(*command);
    }

    try {
        app.parse(argumentCount, arguments);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            std::ostringstream text;
            app.exit(error, text, text);
            Output output(stdout, false);
            std::string shown = text.str();
            while (!shown.empty() && shown.back() == '\n') shown.pop_back();
            output.line(shown);
            return exitCode(output.flush() || *output.failed() == EPIPE ? ExitStatus::done : ExitStatus::failed);
        }
        const auto commands = app.get_subcommands();
        const std::string help =
            commands.empty() ? "tarnwell --help" : "tarnwell " + commands.front()->get_name() + " --help";
        complain(toDisplay(firstLine(error.what())) + "; see " + help);
        return exitCode(ExitStatus::usage);
    }
    if (storageOption->count() > 0) options.storage = storage;

    for (const auto& verb : verbs) {
        if (app.got_subcommand(verb->name())) return exitCode(runVerb(*verb, options));
    }
    complain("what shall be done? \"tarnwell ls\" lists everything; see tarnwell --help");
    return exitCode(ExitStatus::usage);
}

}  // namespace tarnwell::cli
