#include "cli/pages/Completions.h"

namespace tarnwell::cli::pages {
namespace {

constexpr const char* kBegin =
    R"sh(# Completion of tarnwell for fish. Made from the verbs of the program when it was built.

# The identifiers of the app libraries, without what the program has to complain of.
function __tarnwell_libraries
    set -l words (commandline -opc)
    command -q $words[1]; and command $words[1] __libraries 2>/dev/null </dev/null
end

# Whether fish may complete file names by itself, which it does best. Where nothing is typed it would also offer what the
# program takes for an option or an identifier, and what is typed may be one.
function __tarnwell_typed
    set -l typed (commandline -ct)
    test -n "$typed"; and not string match -qr '^(did|fid)=' -- $typed
end

# The files here, but for those names: they are completed once their folder is typed (fish offers nothing with a dot at its
# beginning by itself), and a name of several lines once it is begun.
function __tarnwell_files
    set -l typed (commandline -ct)
    test -z "$typed"; or return
    for name in *
        string match -q '*'\n'*' -- $name; and continue
        string match -qr '^(-.*|#.*|did=.*|fid=.*|root|workingset|alldirs)$' -- $name; and continue
        test -d $name; and set name $name/
        printf '%s\n' $name
    end
end

function __tarnwell_items
    printf '%s\n' root\t'The whole device' workingset\t'Everything of interest' alldirs\t'All folders'
    for library in (__tarnwell_libraries)
        printf '%s\n' $library\t'App library'
    end
    __tarnwell_files
end

function __tarnwell_applications
    __tarnwell_libraries | string replace -r '^#' ''
end

)sh";

constexpr const char* kMiddle = R"sh(
# The verb of the line and how many arguments it has before the word that is completed; nothing without a verb.
function __tarnwell_place
    set -l verb ''
    set -l count 0
    set -l isValue no
    set -l ended no
    set -l words (commandline -opc)
    for word in $words[2..-1]
        if test $isValue = yes
            set isValue no
        else if test $ended = yes; or not string match -q -- '-?*' $word
            if test -z "$verb"
                set verb $word
            else
                set count (math $count + 1)
            end
        else if test "$word" = --
            set ended yes
        else if __tarnwell_takes_value "$verb" "$word"
            set isValue yes
        end
    end
    test -n "$verb"; and printf '%s\n' $verb $count
end

function __tarnwell_without_verb
    set -l place (__tarnwell_place)
    test (count $place) -eq 0
end

# __tarnwell_in VERB [FIRST [LAST]]: whether that verb is there, with so many arguments before.
function __tarnwell_in
    set -l place (__tarnwell_place)
    test (count $place) -eq 2; and test "$place[1]" = "$argv[1]"; or return 1
    set -q argv[2]; and test $place[2] -lt $argv[2]; and return 1
    set -q argv[3]; and test $place[2] -gt $argv[3]; and return 1
    return 0
end

complete -c tarnwell -f
)sh";

/// As one word, in which a backslash means itself only where no quote follows.
std::string inFishQuotes(std::string_view text) {
    std::string result = "'";
    for (const char c : text) {
        if (c == '\'' || c == '\\') result += '\\';
        result += c;
    }
    return result + "'";
}

bool isPath(Kind kind) { return kind == Kind::item || kind == Kind::file; }

/// What follows "complete -c tarnwell -n CONDITION" for a value of that kind.
std::string actionOf(Kind kind, const std::vector<std::string>& choices) {
    switch (kind) {
        case Kind::text:
            return " -f";
        case Kind::item:
            return " -f -a '(__tarnwell_items)'";
        case Kind::file:
            return " -f -a '(__tarnwell_files)'";
        case Kind::folder:
            return " -f -a '(__fish_complete_directories (commandline -ct))'";
        case Kind::application:
            return " -f -a '(__tarnwell_applications)'";
        case Kind::choice:
            break;
    }
    std::string words;
    for (const auto& choice : choices) words += (words.empty() ? "" : " ") + choice;
    return " -f -a " + inFishQuotes(words);
}

/// `condition` is the words of a test, or empty.
std::string optionLine(const Option& option, const std::string& condition) {
    std::string names;
    for (const auto& name : option.names) {
        names += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
    }
    std::string line = "complete -c tarnwell" + (condition.empty() ? "" : " -n '" + condition + "'") + names + " -d " +
                       inFishQuotes(option.help);
    if (option.label.empty()) return line + "\n";
    line += " -r" + actionOf(option.kind, option.choices) + "\n";
    if (!isPath(option.kind)) return line;
    return line + "complete -c tarnwell -n '" + (condition.empty() ? "" : condition + "; and ") + "__tarnwell_typed'" +
           names + " -r -F\n";
}

/// The options of a verb that take a value, as patterns.
std::string valuePatterns(const std::string& verb, const std::vector<Option>& options) {
    std::string patterns;
    for (const Option& option : options) {
        if (option.label.empty()) continue;
        for (const auto& name : option.names) patterns += " " + inFishQuotes(verb + " " + name);
    }
    return patterns;
}

std::string argumentLines(const VerbDeclaration& verb) {
    std::string lines;
    std::size_t place = 0;
    for (const Argument& argument : verb.arguments) {
        for (const Kind& kind : argument.kinds) {
            const std::string at = std::to_string(place++);
            const bool goesOn = argument.repeats && &kind == &argument.kinds.back();
            const std::string begin =
                "complete -c tarnwell -n '__tarnwell_in " + verb.name + " " + at + (goesOn ? "" : " " + at);
            lines += begin + "'" + actionOf(kind, {}) + "\n";
            if (isPath(kind)) lines += begin + "; and __tarnwell_typed' -F\n";
        }
    }
    return lines;
}

}  // namespace

std::string fishCompletion(const ProgramDeclaration& program) {
    std::string script = kBegin;
    script +=
        "# Whether the next word is the value of this option.\nfunction __tarnwell_takes_value\n    switch \"$argv\"\n "
        "       case";
    script += valuePatterns("*", program.options);
    for (const auto& verb : program.verbs) script += valuePatterns(verb.name, verb.options);
    script += "\n            return 0\n    end\n    return 1\nend\n";
    script += kMiddle;
    for (const auto& verb : program.verbs) {
        script += "complete -c tarnwell -n __tarnwell_without_verb -a " + verb.name + " -d " +
                  inFishQuotes(verb.summary) + "\n";
    }
    for (const Option& option : program.options) script += optionLine(option, "");
    for (const auto& verb : program.verbs) {
        for (const Option& option : verb.options) {
            if (option.names.back() != "--help") {
                script += optionLine(option, "__tarnwell_in " + verb.name);
            }
        }
        script += argumentLines(verb);
    }
    return script;
}

}  // namespace tarnwell::cli::pages
