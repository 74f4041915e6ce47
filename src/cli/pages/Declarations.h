#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/verbs/Commands.h"

/// The command line as plain values, for whoever describes it.
namespace tarnwell::cli::pages {

/// What the value of an option or an argument can be, as far as a shell can complete it.
enum class Kind {
    text,         ///< nothing that a shell knows
    item,         ///< an identifier, one of the words for containers, or a path
    file,         ///< a path
    folder,       ///< the path of a folder
    application,  ///< a bundle identifier
    choice,       ///< one of a few words
};

/// The kinds that a label such as "ITEM", "FILE|DIR" or "FILE… PARENT" stands for: one for each word, the first of
/// alternatives. Nothing where a word of it is unknown.
std::optional<std::vector<Kind>> kindsOf(const std::string& label);

/// An option with its names, "-s" before "--sort". Without a label it is a flag and takes no value.
struct Option {
    std::vector<std::string> names = {};
    std::string label = {};
    Kind kind = Kind::text;
    std::vector<std::string> choices = {};
    std::string help = {};
    std::string constraint = {};    ///< "from 16 to 1024", or empty
    std::string defaultValue = {};  ///< or empty
    bool isRequired = false;
    bool repeats = false;
};

/// What stands without a name, in its place.
struct Argument {
    std::string label;
    std::vector<Kind> kinds;  ///< of its words; the last one goes on
    std::string help;
    bool isRequired = false;
    bool repeats = false;
};

struct VerbDeclaration {
    std::string name, summary, example;
    std::vector<Option> options;
    std::vector<Argument> arguments;
};

struct ProgramDeclaration {
    std::string description, footer;
    std::vector<Option> options;  ///< of every verb, too
    std::vector<VerbDeclaration> verbs;
    std::vector<std::string> unknownLabels;  ///< taken for text
};

/// Without what is hidden.
ProgramDeclaration declarationsOf(const Commands& commands);

}  // namespace tarnwell::cli::pages
