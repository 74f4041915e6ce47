#include <gtest/gtest.h>

#include <csignal>
#include <string_view>

#include "tests/mirror/Roles.h"

/// The test program, and the processes that it starts: the one that hosts the provider, and those that change files.
int main(int argc, char** argv) {
    using namespace tarnwell::mirror;
    // A process that ends is noticed by the answer that does not come.
    (void)std::signal(SIGPIPE, SIG_IGN);
    const std::string_view role = argc > 1 ? argv[1] : "";
    if (role == kHostRole && argc == 4) return hostProvider(argv[2], argv[3]);
    if (role == kServeRole && argc == 4) return serveProvider(argv[2], argv[3]);
    if (role == kChangerRole && argc == 6) return changeFiles(argv[2], argv[3], argv[4], argv[5]);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
