#include "cli/pages/Declarations.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace tarnwell::cli::pages {
namespace {

const VerbDeclaration& verbNamed(const ProgramDeclaration& program, const std::string& name) {
    const auto found = std::ranges::find(program.verbs, name, &VerbDeclaration::name);
    EXPECT_NE(found, program.verbs.end()) << name;
    return *found;
}

const Option* optionNamed(const std::vector<Option>& options, const std::string& name) {
    const auto found = std::ranges::find_if(
        options, [&](const Option& option) { return std::ranges::find(option.names, name) != option.names.end(); });
    return found == options.end() ? nullptr : &*found;
}

class DeclarationsTest : public testing::Test {
protected:
    Commands commands_;
    ProgramDeclaration program_ = declarationsOf(commands_);
};

// A label that is new needs a decision how it is completed.
TEST_F(DeclarationsTest, EveryLabelOfTheProgramIsKnown) {
    EXPECT_EQ(program_.unknownLabels, std::vector<std::string>{});
}

TEST_F(DeclarationsTest, EveryVerbButTheHiddenOneIsThere) {
    std::vector<std::string> expected, found;
    for (const auto& verb : commands_.verbs) {
        if (std::string(verb->name()) != "__libraries") expected.emplace_back(verb->name());
    }
    for (const auto& verb : program_.verbs) found.push_back(verb.name);
    EXPECT_EQ(found, expected);
    EXPECT_EQ(found.size() + 1, commands_.verbs.size());
}

TEST_F(DeclarationsTest, AnOptionWithWordsHasThem) {
    const Option* sort = optionNamed(verbNamed(program_, "ls").options, "--sort");
    ASSERT_NE(sort, nullptr);
    EXPECT_EQ(sort->names, (std::vector<std::string>{"-s", "--sort"}));
    EXPECT_EQ(sort->kind, Kind::choice);
    EXPECT_EQ(sort->choices, (std::vector<std::string>{"name", "date"}));
    EXPECT_EQ(sort->label, "name|date");
    EXPECT_FALSE(sort->repeats);
}

TEST_F(DeclarationsTest, AFlagTakesNoValue) {
    const Option* recursive = optionNamed(verbNamed(program_, "ls").options, "-r");
    ASSERT_NE(recursive, nullptr);
    EXPECT_EQ(recursive->label, "");
}

TEST_F(DeclarationsTest, ARangeAndADefaultAreSaid) {
    const Option* size = optionNamed(verbNamed(program_, "thumbnail").options, "--size");
    ASSERT_NE(size, nullptr);
    EXPECT_EQ(size->label, "N");
    EXPECT_TRUE(size->constraint.starts_with("from ")) << size->constraint;
    const Option* limit = optionNamed(verbNamed(program_, "search").options, "--limit");
    ASSERT_NE(limit, nullptr);
    EXPECT_EQ(limit->defaultValue, "100");
}

TEST_F(DeclarationsTest, OptionsOfTheProgramAreNotThoseOfAVerb) {
    const Option* storage = optionNamed(program_.options, "--storage");
    ASSERT_NE(storage, nullptr);
    EXPECT_EQ(storage->kind, Kind::folder);
    EXPECT_EQ(optionNamed(verbNamed(program_, "ls").options, "--storage"), nullptr);
}

TEST_F(DeclarationsTest, ArgumentsAreInTheirPlacesAndSayWhatGoesOn) {
    const auto& rename = verbNamed(program_, "rename").arguments;
    ASSERT_EQ(rename.size(), 2u);
    EXPECT_EQ(rename[0].kinds, std::vector{Kind::item});
    EXPECT_EQ(rename[1].kinds, std::vector{Kind::text});
    EXPECT_TRUE(rename[0].isRequired);
    EXPECT_FALSE(rename[0].repeats);

    const auto& import = verbNamed(program_, "import").arguments;
    ASSERT_EQ(import.size(), 1u);
    EXPECT_EQ(import[0].kinds, (std::vector{Kind::file, Kind::item}));
    EXPECT_TRUE(import[0].repeats);

    const auto& ls = verbNamed(program_, "ls").arguments;
    ASSERT_EQ(ls.size(), 1u);
    EXPECT_FALSE(ls[0].isRequired);
}

TEST(KindsTest, ALabelStandsForWhatItsWordsSay) {
    struct Row {
        const char* label;
        std::optional<std::vector<Kind>> kinds;
    };
    const Row rows[] = {
        {"ITEM", std::vector{Kind::item}},
        {"ITEM…", std::vector{Kind::item}},
        {"FILE|DIR", std::vector{Kind::file}},
        {"FILE… PARENT", std::vector{Kind::file, Kind::item}},
        {"", std::nullopt},
        {"WHATEVER", std::nullopt},
        {"ITEM WHATEVER", std::nullopt},
    };
    for (const Row& row : rows) EXPECT_EQ(kindsOf(row.label), row.kinds) << row.label;
}

}  // namespace
}  // namespace tarnwell::cli::pages
