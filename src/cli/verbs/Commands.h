#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "cli/verbs/Verb.h"

namespace tarnwell::cli {

/// Everything that the command line can be: the options of the program and its verbs with theirs. The command line
/// parses with it; the manual and the completions are made from it.
struct Commands {
    Commands();
    // The parser holds pointers to the rest.
    Commands(const Commands&) = delete;
    Commands& operator=(const Commands&) = delete;

    CLI::App app;
    GlobalOptions options;
    std::string storage;  ///< counts where the option was given
    CLI::Option* storageOption = nullptr;
    std::vector<std::unique_ptr<Verb>> verbs;
};

}  // namespace tarnwell::cli
