#include "cli/pages/Completions.h"

namespace tarnwell::cli::pages {
namespace {

constexpr const char* kBegin =
    R"sh(# Completion of tarnwell for bash. Made from the verbs of the program when it was built.

# Sets `plain` to the word as the shell will understand it: without quotes and backslashes. Nothing is expanded.
_tarnwell_unquote() {
    local word=$1 quote= letter at
    plain=
    for ((at = 0; at < ${#word}; ++at)); do
        letter=${word:at:1}
        if [[ $letter == \\ && $quote != \' ]]; then
            at=$((at + 1))
            plain+=${word:at:1}
        elif [[ -z $quote && ($letter == \' || $letter == \") ]]; then
            quote=$letter
        elif [[ -n $quote && $letter == "$quote" ]]; then
            quote=
        else
            plain+=$letter
        fi
    done
}

# Offers those words that begin with what is there.
_tarnwell_words() {
    local word
    for word in "$@"; do
        [[ $word == "$plain"* ]] && COMPREPLY+=("$word")
    done
}

# Offers the files that begin so. Of what would be taken for an option or an identifier, the folder is said.
_tarnwell_files() {
    local name
    while IFS= read -r -d '' name; do
        case $name in
            -* | '#'* | did=* | fid=* | root | workingset | alldirs)
                [[ -z $plain ]] || continue
                name=./$name
                ;;
        esac
        COMPREPLY+=("$name")
    done < <(shopt -u failglob; shopt -s nullglob; set +f; for name in "$plain"*; do printf '%s\0' "$name"; done)
}

_tarnwell_items() {
    local library
    _tarnwell_words root workingset alldirs
    if [[ -z $plain || $plain == '#'* ]]; then
        while IFS= read -r library; do
            _tarnwell_words "$library"
        done < <("$program" __libraries 2>/dev/null </dev/null)
    fi
}

# Offers what can be a value of that kind. Where nothing is offered, readline completes file names by itself, which it
# does best; `compopt` keeps it from that where none belongs.
_tarnwell_value() {
    case $1 in
        item)
            _tarnwell_items
            case $plain in
                did=* | fid=*) compopt +o default 2>/dev/null ;;
            esac
            if ((${#COMPREPLY[@]})); then
                _tarnwell_files
                compopt -o filenames 2>/dev/null
            fi
            ;;
        file)
            if [[ -z $plain ]]; then
                _tarnwell_files
                compopt -o filenames 2>/dev/null
            fi
            ;;
        folder) compopt +o default -o dirnames 2>/dev/null ;;
        application)
            while IFS= read -r library; do
                _tarnwell_words "${library#'#'}"
            done < <("$program" __libraries 2>/dev/null </dev/null)
            compopt +o default 2>/dev/null
            ;;
        choice*)
            _tarnwell_words ${1#choice}
            compopt +o default 2>/dev/null
            ;;
        *) compopt +o default 2>/dev/null ;;
    esac
}

)sh";

constexpr const char* kEnd = R"sh(
_tarnwell() {
    local program=$1 plain word last='' verb='' kind='' ended='' count=0 at library
    local -a words=() options=()
    COMPREPLY=()
    # Readline breaks words at = and :, too; here they are whole.
    for ((at = 1; at <= COMP_CWORD; ++at)); do
        word=${COMP_WORDS[at]}
        if ((${#words[@]})) && [[ -n $word && ($word == [=:]* || ${words[-1]} == *[=:]) ]]; then
            words[-1]+=$word
        else
            words+=("$word")
        fi
    done
    ((${#words[@]})) || return 0
    last=${words[-1]}
    unset 'words[-1]'
    for word in "${words[@]}"; do
        if [[ -n $kind ]]; then
            kind=
        elif [[ -n $ended || $word != -* || $word == - ]]; then
            if [[ -z $verb ]]; then verb=$word; else count=$((count + 1)); fi
        elif [[ $word == -- ]]; then
            ended=yes
        elif [[ $word != *=* ]]; then
            _tarnwell_option "$verb" "$word"
        fi
    done

    _tarnwell_unquote "$last"
    if [[ -n $kind ]]; then
        _tarnwell_value "$kind"
    elif [[ -z $ended && $plain == --*=* ]]; then
        _tarnwell_option "$verb" "${plain%%=*}"
        # Readline completes what stands after the sign.
        plain=${plain#*=}
        _tarnwell_value "$kind"
    elif [[ -z $ended && $plain == -* ]]; then
        compopt +o default 2>/dev/null
        _tarnwell_options "$verb"
        _tarnwell_words "${options[@]}"
    elif [[ -z $verb ]]; then
        compopt +o default 2>/dev/null
        _tarnwell_verbs
    else
        _tarnwell_argument "$verb" "$count"
        _tarnwell_value "$kind"
    fi
    return 0
}

complete -o default -F _tarnwell tarnwell
)sh";

/// As `_tarnwell_value` takes it.
std::string kindText(Kind kind, const std::vector<std::string>& choices) {
    switch (kind) {
        case Kind::text:
            return "text";
        case Kind::item:
            return "item";
        case Kind::file:
            return "file";
        case Kind::folder:
            return "folder";
        case Kind::application:
            return "application";
        case Kind::choice:
            break;
    }
    std::string text = "'choice";
    for (const auto& choice : choices) text += " " + choice;
    return text + "'";
}

std::string namesOf(const std::vector<Option>& options) {
    std::string names;
    for (const Option& option : options) {
        for (const auto& name : option.names) names += (names.empty() ? "" : " ") + name;
    }
    return names;
}

/// The kind of each option that takes a value, for a verb.
std::string valueCases(const std::string& verb, const std::vector<Option>& options) {
    std::string cases;
    for (const Option& option : options) {
        if (option.label.empty()) continue;
        cases += "        ";
        for (const auto& name : option.names) {
            cases += (&name == &option.names.front() ? "" : " | ") + verb + "' " + name + "'";
        }
        cases += ") kind=" + kindText(option.kind, option.choices) + " ;;\n";
    }
    return cases;
}

std::string argumentCases(const VerbDeclaration& verb) {
    std::string cases;
    std::size_t place = 0;
    const auto add = [&](const std::string& at, Kind kind) {
        cases += "        '" + verb.name + " '" + at + ") kind=" + kindText(kind, {}) + " ;;\n";
    };
    for (const Argument& argument : verb.arguments) {
        for (const Kind kind : argument.kinds) add(std::to_string(place++), kind);
        if (argument.repeats) add("*", argument.kinds.back());
    }
    return cases;
}

}  // namespace

std::string inSingleQuotes(std::string_view text) {
    std::string result = "'";
    for (const char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

std::string bashCompletion(const ProgramDeclaration& program) {
    std::string script = kBegin;
    script += "_tarnwell_verbs() {\n    _tarnwell_words";
    for (const auto& verb : program.verbs) script += " \\\n        " + verb.name;
    script += "\n}\n\n# Sets `options` to those of a verb.\n_tarnwell_options() {\n    options=(" +
              namesOf(program.options) + ")\n    case $1 in\n";
    for (const auto& verb : program.verbs) {
        script += "        " + verb.name + ") options+=(" + namesOf(verb.options) + ") ;;\n";
    }
    script +=
        "    esac\n}\n\n# Sets `kind` to that of an option's value; of a flag it stays empty.\n"
        "_tarnwell_option() {\n    kind=\n    case \"$1 $2\" in\n" +
        valueCases("*", program.options);
    for (const auto& verb : program.verbs) script += valueCases(verb.name, verb.options);
    script +=
        "    esac\n}\n\n# Sets `kind` to that of a verb's argument, counted from 0.\n"
        "_tarnwell_argument() {\n    kind=text\n    case \"$1 $2\" in\n";
    for (const auto& verb : program.verbs) script += argumentCases(verb);
    return script + "    esac\n}\n" + kEnd;
}

}  // namespace tarnwell::cli::pages
