#include "cli/pages/ManualPages.h"

#include <algorithm>
#include <iterator>

#include "cli/pages/Roff.h"

namespace tarnwell::cli::pages {
namespace {

std::string heading(const std::string& name, const Edition& edition) {
    std::string upper = name;
    for (char& c : upper) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    return ".TH " + roffText(upper) + " 1 " + edition.date + " \"Tarnwell " + edition.version +
           "\" \"User Commands\"\n";
}

std::string section(const std::string& name) { return ".SH " + name + "\n"; }

/// A term, and what is said of it below.
std::string entry(const std::string& term, const std::string& text) {
    return ".TP\n" + term + "\n" + (text.empty() ? "\\&" : text) + "\n";
}

std::string withFullStop(std::string text) {
    if (!text.empty() && !text.ends_with('.') && !text.ends_with('?')) text += '.';
    return text;
}

/// A value as the synopsis and the list of options name it: the words of a choice are typed as they stand.
std::string valueOf(const Option& option) {
    if (option.kind != Kind::choice) return italic(option.label);
    std::string text;
    for (const auto& choice : option.choices) text += (text.empty() ? "" : "|") + bold(choice);
    return text;
}

std::string termOf(const Option& option) {
    std::string term;
    for (const auto& name : option.names) term += (term.empty() ? "" : ", ") + bold(name);
    return option.label.empty() ? term : term + " " + valueOf(option);
}

std::string optionList(const std::vector<Option>& options) {
    std::string text;
    for (const Option& option : options) {
        std::string help = withFullStop(option.help);
        if (!option.constraint.empty()) help += " A number " + option.constraint + ".";
        if (!option.defaultValue.empty()) help += " Without it: " + option.defaultValue + ".";
        if (option.repeats) help += " May be given several times.";
        text += entry(termOf(option), roffText(help));
    }
    return text;
}

std::string shortForm(const Option& option) {
    const std::string text = bold(option.names.back()) + (option.label.empty() ? "" : " " + valueOf(option));
    return option.isRequired ? text : "[" + text + "]";
}

std::string shortForm(const Argument& argument) {
    std::string text = italic(argument.label);
    // A label of several words says itself what goes on.
    if (argument.repeats && argument.kinds.size() == 1) text += "\\[u2026]";
    return argument.isRequired ? text : "[" + text + "]";
}

bool has(const Option& option, const char* name) { return std::ranges::find(option.names, name) != option.names.end(); }

bool isHelp(const Option& option) { return has(option, "--help"); }

/// Of the program, and of no use with a verb.
bool isOfProgramAlone(const Option& option) { return isHelp(option) || has(option, "--version"); }

std::string synopsisOf(const VerbDeclaration& verb) {
    std::string text = ".B tarnwell " + roffText(verb.name) + "\n";
    for (const Option& option : verb.options) {
        if (!isHelp(option)) text += shortForm(option) + "\n";
    }
    for (const Argument& argument : verb.arguments) text += shortForm(argument) + "\n";
    return text;
}

/// Lines of a command and, after at least three spaces, what it does.
std::string examplesOf(const VerbDeclaration& verb) {
    std::string text;
    for (std::size_t begin = 0; begin < verb.example.size();) {
        const std::size_t end = std::min(verb.example.find('\n', begin), verb.example.size());
        const std::string line = verb.example.substr(begin, end - begin);
        begin = end + 1;
        const std::size_t gap = std::min(line.find("   "), line.size());
        const std::size_t said = std::min(line.find_first_not_of(' ', gap), line.size());
        text += entry(bold(line.substr(0, gap)), roffText(withFullStop(line.substr(said))));
    }
    return text;
}

std::string exitStatus() {
    return section("EXIT STATUS") + entry(bold("0"), "Done.") +
           entry(bold("1"), "Failed; one line on standard error says why.") +
           entry(bold("2"), "Wrong usage; nothing was done.") +
           entry(bold("3"), "The anchor has expired: list the container anew.");
}

std::string pageName(const VerbDeclaration& verb) { return "tarnwell-" + verb.name; }

std::string reference(const std::string& page) { return ".BR " + roffText(page) + " (1)"; }

std::string environment() {
    return section("ENVIRONMENT") +
           entry(bold("TARNWELL_STORAGE"), roffText("The storage root, where --storage is not given.")) +
           entry(bold("TARNWELL_LOG"), roffText("The level of the log: debug, info, error or off.")) +
           entry(bold("TARNWELL_DEVICE_CLASS"),
                 roffText("What the device is: 1 a handset, 2 another one, 3 a tablet. It decides sizes of icons.")) +
           entry(bold("TARNWELL_SCREEN_SCALE"), roffText("The scale of its screen, from 1 to 3.")) +
           entry(bold("XDG_STATE_HOME") + ", " + bold("XDG_DATA_HOME") + ", " + bold("XDG_CACHE_HOME"),
                 roffText("Where the files below are."));
}

std::string files() {
    return section("FILES") +
           entry(italic("$XDG_STATE_HOME/tarnwell"),
                 roffText("The store: identifiers and the history of changes. Without the variable, "
                          "~/.local/state/tarnwell.")) +
           entry(italic("$XDG_DATA_HOME/Tarnwell Storage"),
                 roffText("The list of app libraries. Without the variable, below ~/.local/share.")) +
           entry(italic("$XDG_CACHE_HOME/tarnwell"),
                 roffText("Drawn icons and the search index; what is missing is made anew. Without the variable, "
                          "~/.cache/tarnwell."));
}

}  // namespace

std::string programPage(const ProgramDeclaration& program, const Edition& edition) {
    std::string page = heading("tarnwell", edition);
    page += section("NAME") + "tarnwell \\- documents of this device in one place\n";
    page += section("SYNOPSIS") + ".B tarnwell\n[" + italic("OPTIONS") + "]\n" + italic("VERB") + "\n[" +
            italic("ARGUMENTS") + "]\n";
    page += section("DESCRIPTION") + roffText(program.description) + "\n.PP\n" +
            roffText(
                "An ITEM is an identifier (did=17, fid=12, #org.example.Notes), root, workingset, alldirs, or a path "
                "(./root for a file of that name). Identifiers last when what they name is renamed, moved or saved "
                "anew.") +
            "\n";
    page += section("OPTIONS") + "They may stand before a verb or after it.\n" + optionList(program.options);
    page += section("VERBS");
    for (const auto& verb : program.verbs) {
        page += ".TP\n.BR tarnwell\\-" + roffText(verb.name) + " (1)\n" + roffText(withFullStop(verb.summary)) + "\n";
    }
    page += exitStatus() + environment() + files();
    page += section("SEE ALSO");
    for (const auto& verb : program.verbs) {
        page += reference(pageName(verb)) + (&verb == &program.verbs.back() ? "\n" : " ,\n");
    }
    return page;
}

std::string verbPage(const ProgramDeclaration& program, const VerbDeclaration& verb, const Edition& edition) {
    std::string page = heading(pageName(verb), edition);
    std::string summary = verb.summary;
    if (!summary.empty() && summary[0] >= 'A' && summary[0] <= 'Z')
        summary[0] = static_cast<char>(summary[0] - 'A' + 'a');
    page += section("NAME") + roffText(pageName(verb)) + " \\- " + roffText(summary) + "\n";
    page += section("SYNOPSIS") + synopsisOf(verb);
    if (!verb.arguments.empty()) {
        page += section("ARGUMENTS");
        for (const Argument& argument : verb.arguments) {
            page += entry(italic(argument.label), roffText(withFullStop(argument.help)));
        }
    }
    page += section("OPTIONS") + optionList(verb.options) + ".PP\nThese may be given with every verb:\n";
    std::vector<Option> shared;
    std::ranges::remove_copy_if(program.options, std::back_inserter(shared), isOfProgramAlone);
    page += optionList(shared);
    page += section("EXAMPLES") + examplesOf(verb) + exitStatus();
    page += section("SEE ALSO") + reference("tarnwell") + "\n";
    return page;
}

}  // namespace tarnwell::cli::pages
