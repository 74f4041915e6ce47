#include <gtest/gtest.h>

#include <chrono>

#include "items/ItemAttributes.h"
#include "testing/CapturingLog.h"

namespace tarnwell::items {
namespace {

using archive::ArchivedArray;
using archive::ArchivedObject;
using archive::Integer;

const Date kDate = Date(std::chrono::seconds(1'700'000'000)) + std::chrono::microseconds(123'456);

class ArchivedValuesTest : public ::testing::Test {
protected:
    static Bytes archived(ArchivedObject object) { return archive::archiveRoot(object); }
    static std::string refusal(const Error& error, const Bytes& bytes) {
        return "[ERROR] got " + describe(error) + " while unarchiving object from " + std::to_string(bytes.size()) +
               " bytes";
    }

    testing::CapturingLog sink;
    ProgramLog log{sink, dispatch::ThreadPool::create()};
};

TEST_F(ArchivedValuesTest, ComeBackAsTheyWereArchived) {
    EXPECT_EQ(decodeDate(log, archived({kDate})), kDate);
    EXPECT_EQ(decodeString(log, archived({std::string("Folder/\xC3\xA9t\xC3\xA9.txt")})),
              "Folder/\xC3\xA9t\xC3\xA9.txt");
    EXPECT_EQ(decodeString(log, archived({std::string()})), "");
    EXPECT_EQ(decodeNumber(log, archived({Integer::fromUnsigned(7)}))->asUnsigned(), 7u);
    EXPECT_EQ(decodeNumber(log, archived({2.5}))->asDouble(), 2.5);
    EXPECT_EQ(decodeStrings(log, archived({ArchivedArray{}})), std::vector<std::string>{});
    EXPECT_EQ(decodeStrings(log, archived({ArchivedArray{{std::string("red")}, {std::string("red")}}})),
              (std::vector<std::string>{"red", "red"}));
    EXPECT_EQ(sink.texts(), std::vector<std::string>{});
}

TEST_F(ArchivedValuesTest, OfAnotherClassAreRefusedWithOneErrorLine) {
    const ArchivedObject date{kDate}, text{std::string("x")}, number{Integer::fromUnsigned(1)}, list{ArchivedArray{}};
    const ArchivedObject mixed{ArchivedArray{{std::string("x")}, {Integer::fromUnsigned(1)}}};
    auto check = [&](auto decode, auto unarchive, const ArchivedObject& object) {
        Bytes bytes = archived(object);
        sink.clear();
        EXPECT_FALSE(decode(log, bytes));
        Error error = unarchive(bytes).error();
        EXPECT_TRUE(
            error.is(ErrorDomain::unarchive, std::to_underlying(archive::UnarchiveError::invalidResultingClass)))
            << describe(error);
        EXPECT_EQ(sink.texts(), std::vector<std::string>{refusal(error, bytes)});
    };
    for (const auto& object : {text, number, list}) check(decodeDate, archive::unarchiveDate, object);
    for (const auto& object : {date, text, list}) check(decodeNumber, archive::unarchiveNumber, object);
    for (const auto& object : {date, number, list}) check(decodeString, archive::unarchiveString, object);
    for (const auto& object : {date, text, number, mixed}) check(decodeStrings, archive::unarchiveStrings, object);
}

TEST_F(ArchivedValuesTest, AreRefusedWithOneErrorLineWhenTheBytesAreNoArchive) {
    const std::vector<Bytes> rows = {
        {},
        Bytes(16, 0x41),  // a raw time stamp
        Bytes(64 * 1024, 0),
        Bytes(64 * 1024, 0xFF),
        archived({std::string("cut")}),
    };
    for (Bytes bytes : rows) {
        if (bytes.size() > 16 && bytes.size() < 1024) bytes.pop_back();
        sink.clear();
        EXPECT_FALSE(decodeDate(log, bytes));
        EXPECT_FALSE(decodeNumber(log, bytes));
        EXPECT_FALSE(decodeString(log, bytes));
        EXPECT_FALSE(decodeStrings(log, bytes));
        std::string line = refusal(archive::unarchiveDate(bytes).error(), bytes);
        EXPECT_EQ(sink.texts(), (std::vector<std::string>{line, line, line, line})) << bytes.size() << " bytes";
    }
}

TEST_F(ArchivedValuesTest, AreRefusedWhenCutAnywhere) {
    const Bytes whole = archived({ArchivedArray{{std::string("red")}, {std::string("gr\xC3\xBCn")}}});
    for (std::size_t length = 0; length < whole.size(); ++length)
        EXPECT_FALSE(decodeStrings(log, ByteView(whole).first(length))) << length;
    EXPECT_EQ(sink.texts(log::Level::error).size(), whole.size());
}

}  // namespace
}  // namespace tarnwell::items
