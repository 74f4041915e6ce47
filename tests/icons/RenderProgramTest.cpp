#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "platform/icons/ProcessIconRenderer.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::icons {
namespace {

/// A prefix as an installation has it, with nothing in it yet.
class RenderProgramTest : public ::testing::Test {
protected:
    RenderProgramTest() {
        std::filesystem::create_directories(directory_.path("bin"));
        std::filesystem::create_directories(directory_.path("libexec/tarnwell"));
    }

    std::string put(const std::string& place, mode_t mode = 0755) {
        const std::string path = directory_.path(place) + "/tarnwell-render-icon";
        std::ofstream(path) << "#!/bin/true\n";
        EXPECT_EQ(::chmod(path.c_str(), mode), 0);
        return path;
    }
    std::string found() const { return ProcessIconRenderer::programFor(directory_.path("bin")); }

    testing::TemporaryDirectory directory_;
};

TEST_F(RenderProgramTest, BesideTheProgramComesFirstAsInABuildFolder) {
    put("libexec/tarnwell");
    const std::string besideIt = put("bin");
    EXPECT_EQ(found(), besideIt);
}

TEST_F(RenderProgramTest, AnInstalledProgramFindsItInLibexec) {
    const std::string installed = put("libexec/tarnwell");
    EXPECT_TRUE(std::filesystem::equivalent(found(), installed)) << found();
}

TEST_F(RenderProgramTest, WhatCannotBeStartedDoesNotCount) {
    put("bin", 0644);
    const std::string installed = put("libexec/tarnwell");
    EXPECT_TRUE(std::filesystem::equivalent(found(), installed)) << found();
}

TEST_F(RenderProgramTest, WhereItIsNowhereThePlaceBesideTheProgramIsNamed) {
    if (std::filesystem::exists(TARNWELL_INSTALLED_RENDER_PROGRAM)) GTEST_SKIP() << "it is installed on this machine";
    EXPECT_EQ(found(), directory_.path("bin") + "/tarnwell-render-icon");
}

TEST_F(RenderProgramTest, TheProgramOfThisBuildIsFound) {
    EXPECT_EQ(ProcessIconRenderer::programFor(TARNWELL_BINARY_DIR), TARNWELL_BINARY_DIR "/tarnwell-render-icon");
}

}  // namespace
}  // namespace tarnwell::icons
