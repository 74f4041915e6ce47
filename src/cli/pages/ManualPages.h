#pragma once

#include <string>

#include "cli/pages/Declarations.h"

namespace tarnwell::cli::pages {

/// Of which program and day the pages are.
struct Edition {
    std::string version;
    std::string date;  ///< "2024-05-01"
};

/// tarnwell(1).
std::string programPage(const ProgramDeclaration& program, const Edition& edition);
/// tarnwell-VERB(1).
std::string verbPage(const ProgramDeclaration& program, const VerbDeclaration& verb, const Edition& edition);

}  // namespace tarnwell::cli::pages
