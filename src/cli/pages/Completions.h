#pragma once

#include <string>

#include "cli/pages/Declarations.h"

/// Scripts that complete the command line of the program in a shell: verbs, options, values that are words, paths, and
/// the identifiers of app libraries, which the program is asked for ("tarnwell __libraries"). What could be taken for
/// an option or an identifier is completed with its folder before it. Nothing that the program or a file name says is
/// run.
namespace tarnwell::cli::pages {

std::string bashCompletion(const ProgramDeclaration& program);
std::string zshCompletion(const ProgramDeclaration& program);
std::string fishCompletion(const ProgramDeclaration& program);

/// The text as one word of bash and zsh.
std::string inSingleQuotes(std::string_view text);

}  // namespace tarnwell::cli::pages
