#include "cli/pages/Completions.h"

namespace tarnwell::cli::pages {
namespace {

constexpr const char* kBegin = R"sh(#compdef tarnwell
# Completion of tarnwell for zsh. Made from the verbs of the program when it was built.

# Into `libraries`, without what the program has to complain of.
_tarnwell_ask() {
  libraries=(${(f)"$($program __libraries 2>/dev/null </dev/null)"})
}

# Files. Of what would be taken for an option or an identifier, the folder is said.
_tarnwell_file() {
  local -a misleading=('-*' '\#*' 'did=*' 'fid=*' root workingset alldirs) there=()
  local ret=1
  if [[ $PREFIX == */* ]]; then
    _files
    return
  fi
  _files -F misleading && ret=0
  if [[ -z $PREFIX ]]; then
    there=(./(-*|'#'*|did=*|fid=*|root|workingset|alldirs)(N))
    (( $#there )) && compadd -f -a there && ret=0
  fi
  return ret
}

_tarnwell_folder() {
  _files -/
}

_tarnwell_item() {
  local -a libraries words=(root workingset alldirs)
  local expl ret=1
  _tarnwell_ask
  _wanted libraries expl 'app library' compadd -a libraries && ret=0
  _wanted containers expl 'container' compadd -a words && ret=0
  _tarnwell_file && ret=0
  return ret
}

_tarnwell_application() {
  local -a libraries
  local expl
  _tarnwell_ask
  libraries=(${libraries#\#})
  _wanted applications expl 'application' compadd -a libraries
}

_tarnwell() {
  local program=${(Q)words[1]} curcontext=$curcontext state line
  local -A opt_args
)sh";

constexpr const char* kEnd = R"sh(    esac
    ;;
  esac
}

_tarnwell "$@"
)sh";

/// A text inside of a specification: between brackets, or between colons.
std::string message(std::string_view text) {
    std::string result;
    for (const char c : text) {
        if (c == ':' || c == '[' || c == ']' || c == '\\') result += '\\';
        result += c == '\n' ? ' ' : c;
    }
    return result;
}

std::string actionOf(Kind kind, const std::vector<std::string>& choices) {
    switch (kind) {
        case Kind::text:
            return " ";
        case Kind::item:
            return "_tarnwell_item";
        case Kind::file:
            return "_tarnwell_file";
        case Kind::folder:
            return "_tarnwell_folder";
        case Kind::application:
            return "_tarnwell_application";
        case Kind::choice:
            break;
    }
    std::string words;
    for (const auto& choice : choices) words += (words.empty() ? "" : " ") + choice;
    return "(" + words + ")";
}

/// One specification for each name of an option; all of them go away with the first that is used.
std::string optionSpecifications(const Option& option, const char* indent) {
    std::string exclusive;
    for (const auto& name : option.names) exclusive += (exclusive.empty() ? "" : " ") + name;
    std::string lines;
    for (const auto& name : option.names) {
        std::string specification = option.repeats ? "*" : "(" + exclusive + ")";
        specification += name;
        if (!option.label.empty()) specification += name.starts_with("--") ? "=" : "+";
        specification += "[" + message(option.help) + "]";
        if (!option.label.empty()) {
            specification += ":" + message(option.label) + ":" + actionOf(option.kind, option.choices);
        }
        lines += indent + inSingleQuotes(specification) + " \\\n";
    }
    return lines;
}

std::string argumentSpecifications(const VerbDeclaration& verb, const char* indent) {
    std::string lines;
    const auto add = [&](const std::string& head, const Argument& argument, Kind kind) {
        lines += indent + inSingleQuotes(head + ":" + message(argument.label) + ":" + actionOf(kind, {})) + " \\\n";
    };
    for (const Argument& argument : verb.arguments) {
        for (const Kind& kind : argument.kinds) {
            const bool goesOn = argument.repeats && &kind == &argument.kinds.back();
            add(goesOn ? "*" : argument.isRequired ? "" : ":", argument, kind);
        }
    }
    return lines;
}

std::string withoutLastBackslash(std::string lines) {
    if (lines.ends_with(" \\\n")) lines.erase(lines.size() - 3, 2);
    return lines;
}

}  // namespace

std::string zshCompletion(const ProgramDeclaration& program) {
    std::string script = kBegin;
    std::string verbs;
    for (const auto& verb : program.verbs) verbs += "    " + inSingleQuotes(verb.name + ":" + verb.summary) + "\n";
    std::string shared;
    for (const Option& option : program.options) shared += optionSpecifications(option, "    ");
    script += "  local -a verbs=(\n" + verbs + "  )\n";
    script += "  _arguments -C -S : \\\n" + shared + "    ': :->verb' \\\n    '*:: :->arguments'\n\n";
    script +=
        "  case $state in\n  verb)\n    _describe -t verbs verb verbs\n    ;;\n  arguments)\n    case $words[1] in\n";
    for (const auto& verb : program.verbs) {
        std::string lines;
        for (const Option& option : verb.options) lines += optionSpecifications(option, "        ");
        for (const Option& option : program.options) {
            // Every verb has a help of its own.
            if (option.names.back() != "--help") lines += optionSpecifications(option, "        ");
        }
        lines += argumentSpecifications(verb, "        ");
        script += "    " + verb.name + ")\n      _arguments -S : \\\n" + withoutLastBackslash(lines) + "      ;;\n";
    }
    return script + kEnd;
}

}  // namespace tarnwell::cli::pages
