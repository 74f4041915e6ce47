#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <cctype>
#include <cstdlib>
#include <string_view>
#include <tuple>

#include "hostframework/TagCodec.h"
#include "items/LocalItem.h"
#include "items/TWPFileObjectIdentifier.h"
#include "platform/archive/KeyedArchive.h"
#include "testing/TestDevice.h"
#include "tests/saves/ProgramRun.h"
#include "tests/saves/WaysToSave.h"

namespace tarnwell::saves {
namespace {

using archive::ArchivedArray;
using archive::Integer;
using items::LocalItem;

constexpr const char* kDocument = "Report.txt";
constexpr const char* kNeighbour = "Other.txt";

bool isLongRun() {
    const char* asked = std::getenv("TARNWELL_DEEP");
    return asked != nullptr && std::string_view(asked) == "1";
}

/// Whether the program looks at the disk after each save, or only after a restart that follows the last.
enum class Moment { running, off };

/// What a client sees of a document.
struct Seen {
    std::string identifier, content;
    std::vector<std::string> tags;
    std::optional<std::uint64_t> rank;
    std::string tagBytes, rankBytes;  ///< of the attributes on disk
    friend bool operator==(const Seen&, const Seen&) = default;
};

std::ostream& operator<<(std::ostream& out, const Seen& seen) {
    out << seen.identifier << " \"" << seen.content << "\" tags:";
    for (const std::string& tag : seen.tags) out << " " << tag;
    return out << " rank: " << (seen.rank ? std::to_string(*seen.rank) : "none") << "; " << seen.tagBytes.size()
               << " and " << seen.rankBytes.size() << " bytes of attributes";
}

std::string attributeOf(const std::string& path, const std::string& name) {
    char buffer[4096];
    const ssize_t size = ::lgetxattr(path.c_str(), ("user." + name).c_str(), buffer, sizeof buffer);
    return size < 0 ? std::string() : std::string(buffer, static_cast<std::size_t>(size));
}

class Saves : public ::testing::TestWithParam<std::tuple<Way, Moment>> {
protected:
    Saves() : desk_{device_.path("Work"), kDocument, device_.home() + "/elsewhere"} {
        testing::makeDirectories(desk_.folder);
        testing::makeDirectories(desk_.elsewhere);
    }

    void makeDocument(const std::string& name, const std::string& content, ArchivedArray tags, std::uint64_t rank) {
        const std::string path = desk_.folder + "/" + name;
        testing::writeFile(path, content);
        setAttribute(path, LocalItem::xattrTagDataName, {std::move(tags)});
        setAttribute(path, LocalItem::xattrFavoriteRankName, {Integer::fromUnsigned(rank)});
    }
    static void setAttribute(const std::string& path, const std::string& name, archive::ArchivedObject value) {
        testing::setUserAttribute(path, name, textOf(archive::archiveRoot(value)));
    }

    Seen look(const std::string& name) {
        const std::string path = desk_.folder + "/" + name;
        Seen seen;
        seen.content = testing::readFile(path);
        seen.tagBytes = attributeOf(path, LocalItem::xattrTagDataName);
        seen.rankBytes = attributeOf(path, LocalItem::xattrFavoriteRankName);
        const auto item = LocalItem::initWithURL(device_.environment(), device_.url("Work/" + name), {});
        if (item == nullptr) return seen;
        seen.identifier = item->itemIdentifier();
        if (item->tagData()) {
            const auto tags = hostframework::TagCodec::decode(*item->tagData());
            EXPECT_TRUE(tags);
            for (const auto& tag : tags.value_or(std::vector<hostframework::Tag>())) seen.tags.push_back(tag.label);
        }
        seen.rank = item->favoriteRank();
        return seen;
    }
    /// Below the storage root, where the identifier leads.
    std::string placeOf(const std::string& identifier) {
        const auto url = items::TWPFileObjectIdentifier(device_.environment()).fileURLWithItemIdentifier(identifier);
        return url ? url->path().substr(device_.url().path().size() + 1) : "nowhere";
    }

    testing::TestDevice device_;
    Desk desk_;
};

TEST_P(Saves, KeepTheIdentifierAndTheMetadata) {
    const auto& [way, moment] = GetParam();
    if (way.isSlow && !isLongRun()) GTEST_SKIP() << "of the long form (TARNWELL_DEEP=1)";
    for (const std::string& program : way.programs) {
        if (!findProgram(program)) GTEST_SKIP() << program << " is not installed";
    }
    makeDocument(kDocument, "the first version\n", {{std::string("Red")}, {std::string("Taxes")}}, 7);
    makeDocument(kNeighbour, "not touched\n", {{std::string("Blue")}}, 8);
    device_.settle();
    Seen expected = look(kDocument);
    const Seen neighbour = look(kNeighbour);
    ASSERT_EQ(expected.identifier.substr(0, 4), "did=");
    ASSERT_EQ(expected.tags, (std::vector<std::string>{"Red", "Taxes"}));
    ASSERT_EQ(expected.rank, 7u);

    // More than once: what took the document's place the first time is what is replaced the second time.
    for (const char* text : {"the second version, a longer one\n", "the third\n", "the fourth version\n"}) {
        way.save(desk_, text);
        if (HasFailure()) return;
        expected.content = text;
        if (moment == Moment::running) {
            device_.settle();
            EXPECT_EQ(look(kDocument), expected);
        }
    }
    device_.restart();
    EXPECT_EQ(placeOf(expected.identifier), std::string("Work/") + kDocument);
    device_.settle();
    EXPECT_EQ(look(kDocument), expected);
    EXPECT_EQ(look(kNeighbour), neighbour);
    EXPECT_EQ(placeOf(neighbour.identifier), std::string("Work/") + kNeighbour);
}

std::string nameOf(const ::testing::TestParamInfo<Saves::ParamType>& info) {
    std::string name;
    for (const char c : std::get<Way>(info.param).title) {
        name += std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
    }
    return name + (std::get<Moment>(info.param) == Moment::running ? "_while_it_runs" : "_while_it_is_off");
}

INSTANTIATE_TEST_SUITE_P(Ways, Saves,
                         ::testing::Combine(::testing::ValuesIn(waysToSave()),
                                            ::testing::Values(Moment::running, Moment::off)),
                         nameOf);

}  // namespace
}  // namespace tarnwell::saves
