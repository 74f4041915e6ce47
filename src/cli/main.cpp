#include <csignal>

#include "cli/verbs/CommandLine.h"

int main(int argc, char** argv) {
    // A reader that goes away is seen where lines are written, so that the store is closed in good order.
    std::signal(SIGPIPE, SIG_IGN);
    return tarnwell::cli::runCommandLine(argc, argv);
}
