#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include <unistd.h>

#include "ItemsFixture.h"
#include "hostframework/ItemIdentifier.h"
#include "hostframework/ProviderManager.h"

namespace tarnwell::items {
namespace {

using log::Level;
using Line = testing::CapturingLog::Line;

class IdentifierResolutionTest : public ItemsTest {};

TEST_F(IdentifierResolutionTest, TextThatIsNoIdentifierIsRefusedWithItsReason) {
    const std::string million(1 << 20, 'x');
    auto pieces = [](int count) {
        return "invalid identifier; identifier should have 2 components, not " + std::to_string(count);
    };
    auto host = [](const std::string& text) { return "invalid host for identifier \"" + text + "\""; };
    auto document = [](const std::string& number, int code = ENOENT) {
        return "can't resolve doc ID \"" + number + "\"; " + std::to_string(code);
    };
    const std::string nul("d\0d=5", 5);
    const struct {
        std::string text;
        std::string line;
    } rows[] = {
        {"", pieces(1)},
        {"=", host("=")},
        {"did", pieces(1)},
        {"did=", document("0")},
        {"fid=12=3", pieces(3)},
        {"===", pieces(4)},
        {"xid=5", host("xid=5")},
        {"DID=5", host("DID=5")},
        {" did=5", host(" did=5")},
        {"did =5", host("did =5")},
        {"\ndid=5", host("\ndid=5")},
        {"#x", pieces(1)},
        {"#", pieces(1)},
        {"#a=b", host("#a=b")},
        {"RootContainer ", pieces(1)},
        {"WorkingSetContainer", pieces(1)},
        {"did=x", document("0")},
        {"did=+-5", document("0")},
        {"did=-1", document("-1")},
        {"did= -1", document("-1")},
        {"did=4294967296", document("4294967296")},
        {"did=4294967297", document("4294967297")},
        {"did=99999999999999999999", document("9223372036854775807")},
        {"did=-99999999999999999999", document("-9223372036854775808")},
        {"did=" + std::string(1 << 20, '9'), document("9223372036854775807")},
        {"did=" + million, document("0")},
        {std::string("did=\0"
                     "5",
                     6),
         document("0")},
        {nul, host(nul)},
        {million, pieces(1)},
        {million + "=1", host(million + "=1")},
        {std::string(1 << 20, '='), pieces((1 << 20) + 1)},
    };
    for (const auto& row : rows) {
        EXPECT_FALSE(resolved(row.text)) << row.text.substr(0, 60);
        EXPECT_EQ(loggedLines(), (std::vector<Line>{{Level::error, row.line}})) << row.text.substr(0, 60);
    }
}

TEST_F(IdentifierResolutionTest, AFileIDThatNamesNothingIsADebugLine) {
    const struct {
        std::string text;
        std::string shown;
    } rows[] = {
        {"fid=", "0"},
        {"fid=0", "0"},
        {"fid=x", "0"},
        {"fid=-1", "-1"},
        {"fid=9223372036854775807", "9223372036854775807"},
        {"fid=18446744073709551615", "-1"},
        {"fid=99999999999999999999", "9223372036854775807"},
    };
    for (const auto& row : rows) {
        EXPECT_FALSE(resolved(row.text)) << row.text;
        EXPECT_EQ(loggedLines(), (std::vector<Line>{{Level::debug, "can't resolve path matching file ID \"" +
                                                                       row.shown + "\"; " + std::to_string(ENOENT)}}))
            << row.text;
    }
    EXPECT_FALSE(identifiers.fileURLWithFileIdentifier(0));
    EXPECT_EQ(logged(), Texts{"can't resolve path matching file ID \"0\"; 2"});
}

TEST_F(IdentifierResolutionTest, ANumberMayHaveWhiteSpaceASignAndATail) {
    const std::string folder = makeFolder("Folder").substr(4);
    const std::string file = makeFile("a.txt").substr(4);
    for (const std::string before : {" ", "+", "\t\n +", "0"}) {
        EXPECT_EQ(resolved("fid=" + before + folder), device.url("Folder")) << before;
        EXPECT_EQ(resolved("did=" + before + file), device.url("a.txt")) << before;
    }
    for (const std::string& after : {std::string(" "), std::string("x"), std::string("\0", 1), std::string(".5")}) {
        EXPECT_EQ(resolved("fid=" + folder + after), device.url("Folder")) << after;
        EXPECT_EQ(resolved("did=" + file + after), device.url("a.txt")) << after;
    }
}

TEST_F(IdentifierResolutionTest, ABusyStoreIsTriedAgainFiveTimes) {
    const std::string identifier = makeFile("a.txt");
    const std::string number = identifier.substr(4);
    for (int code : {EAGAIN, EBUSY, ESTALE})
        for (unsigned failures = 0; failures <= 6; ++failures) {
            const std::uint64_t before = store.lookups();
            store.failLookups(code, failures);
            auto url = resolved(identifier);
            store.stopFailing();
            const unsigned retries = std::min(failures, 5u);
            std::vector<Line> expected(
                retries, Line{Level::debug, "doc ID resolution failed with errno(" + std::to_string(code) +
                                                "), let's try again after resting"});
            if (failures == 6)
                expected.push_back({Level::debug, "can't resolve doc ID \"" + number + "\" after five attempts"});
            EXPECT_EQ(url.has_value(), failures < 6) << errnoName(code) << " " << failures;
            EXPECT_EQ(store.lookups() - before, retries + 1) << errnoName(code) << " " << failures;
            EXPECT_EQ(loggedLines(), expected) << errnoName(code) << " " << failures;
        }
}

TEST_F(IdentifierResolutionTest, ABusyStoreGetsAMillisecondBeforeEachOfFiveRetries) {
    const std::string identifier = makeFile("a.txt");
    store.failLookups(EBUSY, 6);
    const auto began = std::chrono::steady_clock::now();
    EXPECT_FALSE(resolved(identifier));
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(5));
}

TEST_F(IdentifierResolutionTest, TheSixthFailureIsTheLastWhateverItIs) {
    const std::string identifier = makeFile("a.txt");
    store.failLookups(EBUSY, 5);
    store.failLookups(EIO, 1);
    EXPECT_FALSE(resolved(identifier));
    EXPECT_EQ(loggedLines().back(),
              (Line{Level::debug, "can't resolve doc ID \"" + identifier.substr(4) + "\" after five attempts"}));
}

TEST_F(IdentifierResolutionTest, TheStorageRootIsAskedForEachTime) {
    /// A host whose storage root is another one from one moment to the next.
    class MovingManager : public hostframework::ProviderManager {
    public:
        explicit MovingManager(URL now) : storage(std::move(now)) {}
        void signalEnumeratorForContainer(const std::string&, hostframework::Completion) override {}
        void deleteSearchableItemsWithDomainIdentifiers(const std::vector<std::string>&,
                                                        hostframework::Completion) override {}
        URL documentStorageURL() const override { return URL::file(storage.path()); }
        Relationship relationshipToDocumentStorage(const URL& url) const override { return relationship(storage, url); }
        URL storage;
    };
    makeFolder("Folder");
    MovingManager manager(device.url());
    const Environment moving{programLog, files, store, manager, &libraries};
    const TWPFileObjectIdentifier asked(moving);
    EXPECT_EQ(asked.fileURLWithItemIdentifier(hostframework::kRootContainer), device.url());
    EXPECT_NE(asked.itemIdentifier(device.url("Folder")), hostframework::kRootContainer);
    manager.storage = device.url("Folder");
    EXPECT_EQ(asked.fileURLWithItemIdentifier(hostframework::kRootContainer), device.url("Folder"));
    EXPECT_EQ(asked.itemIdentifier(device.url("Folder")), hostframework::kRootContainer);
}

TEST_F(IdentifierResolutionTest, AnyOtherFailureOfTheStoreEndsAtOnce) {
    const std::string identifier = makeFile("a.txt");
    for (int code : {EIO, ENOENT, EACCES, EINTR}) {
        const std::uint64_t before = store.lookups();
        store.failLookups(code, 1);
        EXPECT_FALSE(resolved(identifier)) << errnoName(code);
        EXPECT_EQ(store.lookups() - before, 1u) << errnoName(code);
        EXPECT_EQ(loggedLines(), (std::vector<Line>{{Level::error, "can't resolve doc ID \"" + identifier.substr(4) +
                                                                       "\"; " + std::to_string(code)}}));
    }
    const std::uint64_t before = store.lookups();
    store.failLookups(EBUSY, 1);
    store.failLookups(EIO, 1);
    EXPECT_FALSE(resolved(identifier));
    EXPECT_EQ(store.lookups() - before, 2u);
    EXPECT_EQ(logged(), (Texts{"doc ID resolution failed with errno(16), let's try again after resting",
                               "can't resolve doc ID \"" + identifier.substr(4) + "\"; 5"}));
}

TEST_F(IdentifierResolutionTest, AFileThatIsGoneLeadsNowhere) {
    const std::string file = makeFile("a.txt");
    const std::string folder = makeFolder("Folder");
    ASSERT_EQ(::unlink(device.path("a.txt").c_str()), 0);
    ASSERT_EQ(::rmdir(device.path("Folder").c_str()), 0);
    EXPECT_FALSE(resolved(file));
    EXPECT_EQ(logged().size(), 1u);
    EXPECT_FALSE(resolved(folder));
    EXPECT_EQ(logged(), Texts{"can't resolve path matching file ID \"" + folder.substr(4) + "\"; 2"});
}

TEST_F(IdentifierResolutionTest, WithoutTheDeviceNothingIsResolved) {
    const std::string folder = makeFolder("Folder");
    const struct {
        Operation operation;
        int code;
    } rows[] = {{Operation::openEventOnly, EACCES}, {Operation::deviceID, ENOENT}};
    for (const auto& row : rows) {
        const std::string line =
            "can't get device ID for " + quoted(device.url().path()) + "; " + std::to_string(row.code);
        files.clear();
        files.fail(row.operation, posixError(row.code, "more"));
        EXPECT_FALSE(resolved(folder));
        EXPECT_EQ(loggedLines(), (std::vector<Line>{{Level::error, line}}));
        EXPECT_FALSE(identifiers.fileURLWithFileIdentifier(numberIn(folder)));
        EXPECT_EQ(loggedLines(), (std::vector<Line>{{Level::error, line}}));
        EXPECT_EQ(identifiers.deviceIDWithError(device.url()).error(), posixError(row.code));
        EXPECT_FALSE(identifiers.deviceID(device.url()));
        EXPECT_EQ(logged(), Texts{});
    }
}

}  // namespace
}  // namespace tarnwell::items
