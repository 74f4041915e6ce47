#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarnwell::saves {

/// The program's file on the search path; nothing where it is not installed.
std::optional<std::string> findProgram(const std::string& name);

/// What one run of a program left.
struct ProgramEnd {
    int status = -1;     ///< exit status; 128 + the signal's number for one that a signal ended
    std::string output;  ///< standard output and standard error
};

/// Runs a program to its end in the folder, with a home of its own, the language C.UTF-8, `input` as its standard input
/// and the given variables. One that cannot be started ends with status 127.
ProgramEnd runProgram(const std::vector<std::string>& arguments, const std::string& folder, const std::string& home,
                      const std::string& input, const std::map<std::string, std::string>& variables);

}  // namespace tarnwell::saves
