#include "platform/icons/IconData.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <future>

#include "platform/icons/PngCheck.h"
#include "testing/TemporaryDirectory.h"
#include "tests/icons/Pngs.h"

namespace tarnwell::icons {
namespace {

TEST(IconVariants, AreFivePairsOfPointsAndScale) {
    struct Row {
        int number;
        unsigned points, scale, pixels;
    };
    for (const Row& row : {Row{0, 48, 1, 48}, {15, 48, 2, 96}, {32, 48, 3, 144}, {1, 64, 1, 64}, {24, 64, 2, 128}}) {
        const auto variant = iconVariant(row.number);
        ASSERT_TRUE(variant) << row.number;
        EXPECT_EQ(variant->points, row.points);
        EXPECT_EQ(variant->scale, row.scale);
        EXPECT_EQ(variant->pixels(), row.pixels);
    }
    for (const int number : {-1, 2, 14, 16, 23, 25, 31, 33, 1 << 30}) EXPECT_FALSE(iconVariant(number)) << number;
}

TEST(IconFormats, AreToldByContentAlone) {
    struct Row {
        std::string content;
        std::optional<IconFormat> expected;
    };
    const std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\"/>";
    for (const Row& row : {Row{pngOf(2, 2), IconFormat::png},
                           {kPngBegin, IconFormat::png},
                           {"\x89PNG\r\n", {}},
                           {"", {}},
                           {svg, IconFormat::svg},
                           {"\xEF\xBB\xBF\n " + svg, IconFormat::svg},
                           {"<?xml version=\"1.0\"?>\n<!-- <html> -->\n" + svg, IconFormat::svg},
                           {"<!DOCTYPE svg PUBLIC \"-//W3C\" \"http://x/svg.dtd\">" + svg, IconFormat::svg},
                           {"<!DOCTYPE svg [ <!ENTITY a \">\"> ]>" + svg, IconFormat::svg},
                           {"<!DOCTYPE svg [ ]", {}},
                           {"<!DOCTYPE svg", {}},
                           {"<svg:svg xmlns:svg=\"http://www.w3.org/2000/svg\">", IconFormat::svg},
                           {"<svg", {}},
                           {"<svgx>", {}},
                           {"<html><svg/></html>", {}},
                           {"-----BEGIN KEY-----\n" + svg, {}},
                           {"<!-- " + std::string(100'000, 'x') + "-->" + svg, {}},
                           {"<", {}},
                           {"<?", {}},
                           {std::string(1, '\0') + svg, {}},
                           {"\x1f\x8b\x08 compressed", {}},
                           {"/* XPM */", {}}}) {
        EXPECT_EQ(formatOf(bytesOf(row.content)), row.expected) << row.content.substr(0, 80);
    }
}

TEST(GenericIcon, IsAnSvgOfAnySize) {
    for (const unsigned pixels : {48u, 64u}) {
        const IconData icon = genericIcon(pixels);
        EXPECT_EQ(icon.pixels, pixels);
        EXPECT_EQ(formatOf(icon.bytes), IconFormat::svg);
    }
}

class ReadIconTest : public ::testing::Test {
protected:
    std::string file(const std::string& name, std::string_view content) const {
        testing::writeFile(folder_.path(name), content);
        return folder_.path(name);
    }
    int refusal(const std::string& path) const {
        const auto icon = readIcon(path, 48);
        return icon ? 0 : static_cast<int>(icon.error().code);
    }
    testing::TemporaryDirectory folder_;
};

TEST_F(ReadIconTest, GivesTheFilesBytesAsTheyAre) {
    const std::string content = pngOf(3, 2);
    const auto icon = readIcon(file("icon", content), 96);
    ASSERT_TRUE(icon) << describe(icon.error());
    EXPECT_EQ(icon->bytes, bytesFrom(content));
    EXPECT_EQ(icon->pixels, 96u);
    EXPECT_EQ(icon->format, IconFormat::png);
    EXPECT_EQ(icon->source, folder_.path("icon"));
}

TEST_F(ReadIconTest, FollowsLinks) {
    file("icon", pngOf(3, 2));
    std::filesystem::create_symlink("icon", folder_.path("link"));
    EXPECT_TRUE(readIcon(folder_.path("link"), 48));
}

TEST_F(ReadIconTest, RefusesWhatIsNoIcon) {
    EXPECT_EQ(refusal(folder_.path("missing")), ENOENT);
    EXPECT_EQ(refusal(folder_.path("")), EINVAL);
    EXPECT_EQ(refusal(file("empty", "")), EINVAL);
    EXPECT_EQ(refusal(file("secret", "-----BEGIN KEY-----\n")), EINVAL);
    EXPECT_EQ(refusal("/dev/zero"), EINVAL);
    EXPECT_EQ(refusal("/proc/self/environ"), EINVAL);
    std::filesystem::create_symlink("loop", folder_.path("loop"));
    EXPECT_EQ(refusal(folder_.path("loop")), ELOOP);
    EXPECT_EQ(refusal(file("file", "x") + "/below"), ENOTDIR);
}

TEST_F(ReadIconTest, AFileOfAHundredMegabytesIsNotRead) {
    const std::string path = file("big", pngOf(2, 2));
    ASSERT_EQ(::truncate(path.c_str(), 100 << 20), 0);
    EXPECT_EQ(refusal(path), EFBIG);
    ASSERT_EQ(::truncate(path.c_str(), kMaxIconFileBytes + 1), 0);
    EXPECT_EQ(refusal(path), EFBIG);
    ASSERT_EQ(::truncate(path.c_str(), kMaxIconFileBytes), 0);
    EXPECT_EQ(refusal(path), 0);
}

TEST_F(ReadIconTest, AFifoIsNeitherWaitedForNorOpened) {
    ASSERT_EQ(::mkfifo(folder_.path("fifo").c_str(), 0600), 0);
    auto refused = std::async(std::launch::async, [&] { return refusal(folder_.path("fifo")); });
    ASSERT_EQ(refused.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(refused.get(), EINVAL);
}

TEST(PngCheck, TakesAWholePictureOfThatSize) {
    EXPECT_TRUE(isSoundPng(bytesFrom(pngOf(4, 4)), 4));
    EXPECT_FALSE(isSoundPng(bytesFrom(pngOf(4, 4)), 5));
    EXPECT_FALSE(isSoundPng(bytesFrom(pngOf(4, 5)), 4));
    EXPECT_FALSE(isSoundPng({}, 4));
    EXPECT_FALSE(isSoundPng(bytesFrom(kPngBegin + pngHeader(4, 4) + pngPart("IEND", "")), 4));
    EXPECT_FALSE(isSoundPng(bytesFrom(pngOf(4, 4) + "x"), 4));
    EXPECT_FALSE(isSoundPng(bytesFrom(kPngBegin + pngPart("tEXt", "a") + pngOf(4, 4).substr(8)), 4));
    EXPECT_FALSE(isSoundPng(bytesFrom(kPngBegin + pngHeader(4, 4) + "\xFF\xFF\xFF\xFFIDAT1234"), 4));
}

TEST(PngCheck, NoticesEveryCutAndEveryChangedByte) {
    const Bytes sound = bytesFrom(pngOf(4, 4));
    for (std::size_t i = 0; i < sound.size(); ++i) {
        EXPECT_FALSE(isSoundPng(ByteView(sound).first(i), 4)) << i;
        Bytes changed = sound;
        changed[i] ^= 0x10;
        EXPECT_FALSE(isSoundPng(changed, 4)) << i;
    }
}

}  // namespace
}  // namespace tarnwell::icons
