#pragma once

namespace tarnwell::cli {

/// Runs the program with its arguments and returns its exit status.
int runCommandLine(int argumentCount, const char* const* arguments);

}  // namespace tarnwell::cli
