#include "cli/verbs/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "cli/output/Complaint.h"
#include "cli/output/Text.h"
#include "cli/verbs/Commands.h"

namespace tarnwell::cli {
namespace {

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

/// Each line moved to the right.
std::string indented(std::string_view text) {
    std::string result = "  ";
    for (const char c : text) result += c == '\n' ? std::string("\n  ") : std::string(1, c);
    return result;
}

/// How many letters have to be changed, added, left out or swapped with their neighbour to make one of the other.
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> twoAbove(b.size() + 1), above(b.size() + 1), row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        twoAbove.swap(above);
        above.swap(row);
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                row[j] = std::min(row[j], twoAbove[j - 2] + 1);
            }
        }
    }
    return row[b.size()];
}

/// The verb that was probably meant: one that begins so, else the nearest if no more than a third of it is wrong.
const Verb* verbLike(std::string_view given, const std::vector<std::unique_ptr<Verb>>& verbs) {
    std::string lower(given);
    for (char& c : lower) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    const Verb* nearest = nullptr;
    std::size_t least = 0;
    for (const auto& verb : verbs) {
        const std::string_view name = verb->name();
        if (lower.size() > 1 && name.starts_with(lower)) return verb.get();
        // Whatever is much longer differs by more than that.
        if (lower.size() > 2 * name.size()) continue;
        const std::size_t wrong = distance(lower, name);
        if (wrong > std::max<std::size_t>(1, name.size() / 3) || wrong >= lower.size()) continue;
        if (nearest == nullptr || wrong < least) {
            nearest = verb.get();
            least = wrong;
        }
    }
    return nearest;
}

/// One line about a first argument that is no verb.
std::string unknownVerb(std::string_view given, const std::vector<std::unique_ptr<Verb>>& verbs) {
    const std::string message = "there is no verb \"" + toDisplay(given) + "\"";
    const Verb* meant = verbLike(given, verbs);
    if (meant == nullptr) return message + "; see tarnwell --help";
    return message + "; did you mean \"" + meant->name() + "\"? See tarnwell --help";
}

/// What was asked for and needs no device: the help of the program or of a verb, or the version.
std::string requestedText(const CLI::App& app, const CLI::ParseError& request,
                          const std::vector<std::unique_ptr<Verb>>& verbs) {
    std::ostringstream text;
    app.exit(request, text, text);
    std::string shown = text.str();
    while (!shown.empty() && shown.back() == '\n') shown.pop_back();
    for (const auto& verb : verbs) {
        // Added here and not as the library's footer, which some of its versions format anew.
        if (app.got_subcommand(verb->name())) shown += "\n\nExample:\n" + indented(verb->example());
    }
    return shown;
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
    Commands commands;
    CLI::App& app = commands.app;
    const auto& verbs = commands.verbs;
    try {
        app.parse(argumentCount, arguments);
    } catch (const CLI::ParseError& error) {
        const auto given = app.get_subcommands();
        // What no option took comes back in the order given; without a verb its first word stands for one.
        const auto notTaken = app.remaining();
        if (given.empty() && !notTaken.empty() && !notTaken.front().starts_with('-')) {
            complain(unknownVerb(notTaken.front(), verbs));
            return exitCode(ExitStatus::usage);
        }
        if (error.get_exit_code() == 0) {
            Output output(stdout, false);
            output.line(requestedText(app, error, verbs));
            return exitCode(output.flush() || *output.failed() == EPIPE ? ExitStatus::done : ExitStatus::failed);
        }
        const std::string help =
            given.empty() ? "tarnwell --help" : "tarnwell " + given.front()->get_name() + " --help";
        complain(toDisplay(firstLine(error.what())) + "; see " + help);
        return exitCode(ExitStatus::usage);
    }
    if (commands.storageOption->count() > 0) commands.options.storage = commands.storage;

    for (const auto& verb : verbs) {
        if (app.got_subcommand(verb->name())) return exitCode(runVerb(*verb, commands.options));
    }
    complain("what shall be done? \"tarnwell ls\" lists everything; see tarnwell --help");
    return exitCode(ExitStatus::usage);
}

}  // namespace tarnwell::cli
