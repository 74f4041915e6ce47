#include "host/Guards.h"

#include "tests/provider/OperationsFixture.h"

namespace tarnwell::host {
namespace {

/// The refusals in words are tested with the program; here is that they come before the provider is asked.
class GuardsTest : public provider::OperationsTest {
protected:
    GuardsTest() {
        provider_ = provider::LocalProvider::create(providerContext_);
        makeNote("a.txt");
        makeNote("Folder/b.txt");
        makeNote(".Trash/old.txt");
    }
    ~GuardsTest() override {
        provider_.reset();
        device_.pool()->waitUntilQuiet();
    }
    static std::string reason(const Result<void>& outcome) {
        if (outcome) return "allowed";
        EXPECT_TRUE(outcome.error().is(ErrorDomain::generalFile, kWriteNotPermitted)) << describe(outcome.error());
        return outcome.error().userInfo.at(kErrorMessage);
    }
    Guards guards() { return {*provider_, device_.roots()}; }

    std::shared_ptr<provider::LocalProvider> provider_;
};

TEST_F(GuardsTest, OrdinaryItemsMayBeChanged) {
    const std::string file = noteIdentifier("a.txt");
    const std::string folder = noteIdentifier("Folder");
    const std::string old = noteIdentifier(".Trash/old.txt");
    for (const std::string& item : {file, folder}) {
        EXPECT_TRUE(guards().mayRename(item, "x"));
        EXPECT_TRUE(guards().mayMove(item, kLibrary, "x"));
        EXPECT_TRUE(guards().mayMove(item, folder, std::nullopt));
        EXPECT_TRUE(guards().mayTrash(item));
        EXPECT_TRUE(guards().mayDelete(item));
    }
    for (const std::string& parent : {folder, kLibrary}) {
        EXPECT_TRUE(guards().mayAdd("x", Guards::Kind::folder, parent));
        EXPECT_TRUE(guards().mayRestore(old, parent));
    }
    EXPECT_TRUE(guards().mayRestore(old, std::nullopt));
    EXPECT_TRUE(guards().mayRename(old, "x"));
    EXPECT_TRUE(guards().mayDelete(old));
    EXPECT_TRUE(guards().mayAdd("Inbox", Guards::Kind::folder, folder));
    EXPECT_TRUE(guards().mayAdd("Inbox", Guards::Kind::document, kLibrary));
    EXPECT_TRUE(guards().mayAdd(".Trash", Guards::Kind::folder, folder));
}

TEST_F(GuardsTest, WhatKeepsItsPlaceIsRefused) {
    for (const std::string& item :
         {std::string("RootContainer"), kLibrary, noteIdentifier(".Trash"), std::string("WorkingSetContainer"),
          std::string("AllDirectoriesContainer"), std::string("TemporaryLocalFolder")}) {
        SCOPED_TRACE(item);
        EXPECT_NE(reason(guards().mayRename(item, "x")), "allowed");
        EXPECT_NE(reason(guards().mayMove(item, noteIdentifier("Folder"), std::nullopt)), "allowed");
        EXPECT_NE(reason(guards().mayTrash(item)), "allowed");
        EXPECT_NE(reason(guards().mayDelete(item)), "allowed");
        EXPECT_NE(reason(guards().mayRestore(item, std::nullopt)), "allowed");
    }
    EXPECT_FALSE(exists(device_.path(".TemporaryLocalFolder")));
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(GuardsTest, EachCapabilityIsAsked) {
    faultyFiles_.answerResource(files::ResourceKey::isWritable, false);
    const auto readOnly = provider::LocalProvider::create(faultyContext_);
    const Guards guards(*readOnly, device_.roots());
    const std::string file = noteIdentifier("a.txt");
    EXPECT_EQ(reason(guards.mayRename(file, "x")), "it is read-only");
    EXPECT_EQ(reason(guards.mayMove(file, kLibrary, std::nullopt)), "it is read-only");
    EXPECT_EQ(reason(guards.mayTrash(file)), "it is read-only");
    EXPECT_EQ(reason(guards.mayDelete(file)), "it is read-only");
    EXPECT_EQ(reason(guards.mayAdd("x", Guards::Kind::folder, noteIdentifier("Folder"))), "\"Folder\" is read-only");
}

TEST_F(GuardsTest, AnUnknownItemIsWhatTheLookupSays) {
    for (const auto& outcome :
         {guards().mayRename("did=4000000", "x"), guards().mayTrash("did=4000000"),
          guards().mayMove(noteIdentifier("a.txt"), "did=4000000", std::nullopt),
          guards().mayAdd("x", Guards::Kind::folder, "did=4000000"), guards().mayDelete("did=4000000"),
          guards().mayRestore(noteIdentifier(".Trash/old.txt"), "did=4000000")}) {
        ASSERT_FALSE(outcome.has_value());
        EXPECT_EQ(outcome.error(), kInvalidIdentifier);
    }
}

}  // namespace
}  // namespace tarnwell::host
