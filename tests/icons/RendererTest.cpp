#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <thread>

#include "platform/icons/PngCheck.h"
#include "platform/icons/ProcessIconRenderer.h"
#include "platform/icons/RenderProcess.h"
#include "testing/CapturingLog.h"
#include "testing/TemporaryDirectory.h"
#include "tests/icons/Pngs.h"

namespace tarnwell::icons {
namespace {

using namespace std::chrono_literals;
namespace files = std::filesystem;

const std::string kProgram = TARNWELL_BINARY_DIR "/tarnwell-render-icon";
const std::string kSvgBegin =
    "<svg xmlns=\"http://www.w3.org/2000/svg\" xmlns:xlink=\"http://www.w3.org/1999/xlink\" width=\"48\" "
    "height=\"48\">";

IconData svg(const std::string& body, unsigned pixels = 48) {
    return {bytesFrom(kSvgBegin + body + "</svg>"), IconFormat::svg, pixels, "test"};
}
IconData png(const std::string& content, unsigned pixels = 48) {
    return {bytesFrom(content), IconFormat::png, pixels, "test"};
}

std::uint32_t numberAt(const Bytes& bytes, std::size_t at) {
    return static_cast<std::uint32_t>(bytes[at]) << 24 | static_cast<std::uint32_t>(bytes[at + 1]) << 16 |
           static_cast<std::uint32_t>(bytes[at + 2]) << 8 | bytes[at + 3];
}

/// The pixels of a picture of 8-bit colours, with alpha or without, read by the format's rules: an oracle of its own.
class Pixels {
public:
    explicit Pixels(const Bytes& bytes) : side_(bytes.size() < 29 ? 0 : numberAt(bytes, 16)) {
        if (side_ == 0) return;
        channels_ = bytes[25] == 2 ? 3 : 4;
        std::string packed;
        for (std::size_t at = 8; at + 12 <= bytes.size();) {
            const std::size_t length = numberAt(bytes, at);
            if (std::string(bytes.begin() + at + 4, bytes.begin() + at + 8) == "IDAT") {
                packed.append(bytes.begin() + at + 8, bytes.begin() + at + 8 + length);
            }
            at += 12 + length;
        }
        const std::size_t stride = side_ * channels_;
        std::vector<std::uint8_t> rows(side_ * (stride + 1));
        uLongf size = rows.size();
        isSound_ =
            bytes[24] == 8 && (bytes[25] == 6 || bytes[25] == 2) && bytes[28] == 0 &&
            uncompress(rows.data(), &size, reinterpret_cast<const Bytef*>(packed.data()), packed.size()) == Z_OK &&
            size == rows.size();
        pixels_.resize(side_ * stride);
        for (std::size_t y = 0; isSound_ && y < side_; ++y) {
            for (std::size_t x = 0; x < stride; ++x) {
                const int left = x < channels_ ? 0 : pixels_[y * stride + x - channels_];
                const int above = y == 0 ? 0 : pixels_[(y - 1) * stride + x];
                const int corner = x < channels_ || y == 0 ? 0 : pixels_[(y - 1) * stride + x - channels_];
                const int estimate = left + above - corner;
                const int toLeft = std::abs(estimate - left), toAbove = std::abs(estimate - above),
                          toCorner = std::abs(estimate - corner);
                const int nearest = toLeft <= toAbove && toLeft <= toCorner ? left
                                    : toAbove <= toCorner                   ? above
                                                                            : corner;
                const std::array<int, 5> predicted{0, left, above, (left + above) / 2, nearest};
                const auto filter = rows[y * (stride + 1)];
                pixels_[y * stride + x] =
                    static_cast<std::uint8_t>(rows[y * (stride + 1) + 1 + x] + predicted.at(filter));
            }
        }
    }
    bool isSound() const { return isSound_; }
    /// Red, green, blue, alpha.
    std::array<int, 4> at(std::size_t x, std::size_t y) const {
        if (!isSound_) return {-1, -1, -1, -1};
        const auto* pixel = pixels_.data() + (y * side_ + x) * channels_;
        return {pixel[0], pixel[1], pixel[2], channels_ == 4 ? pixel[3] : 255};
    }

private:
    std::size_t side_;
    std::size_t channels_ = 4;
    bool isSound_ = false;
    std::vector<std::uint8_t> pixels_;
};
using Colour = std::array<int, 4>;

Bytes drawn(const IconData& icon) {
    auto picture = renderInProcess(kProgram, icon, 60s);
    EXPECT_TRUE(picture) << describe(picture.error());
    return picture.value_or(Bytes());
}
int refusal(const IconData& icon, std::chrono::milliseconds patience = 60s) {
    const auto picture = renderInProcess(kProgram, icon, patience);
    return picture ? 0 : static_cast<int>(picture.error().code);
}

TEST(RenderProcess, DrawsPngAndSvgInTheWantedSize) {
    for (const IconData& icon : {svg("<rect width=\"48\" height=\"48\" fill=\"#ff0080\"/>", 1),
                                 svg("<rect width=\"48\" height=\"48\" fill=\"#ff0080\"/>", 48),
                                 svg("<rect width=\"48\" height=\"48\" fill=\"#ff0080\"/>", 1024), png(pngOf(1, 1), 48),
                                 png(pngOf(48, 48), 48), png(pngOf(300, 300), 144)}) {
        SCOPED_TRACE(icon.pixels);
        const Bytes picture = drawn(icon);
        ASSERT_TRUE(isSoundPng(picture, icon.pixels));
        const Pixels pixels(picture);
        ASSERT_TRUE(pixels.isSound());
        EXPECT_EQ(pixels.at(icon.pixels / 2, icon.pixels / 2), (Colour{255, 0, 128, 255}));
        EXPECT_EQ(pixels.at(0, 0), (Colour{255, 0, 128, 255}));
    }
}

TEST(RenderProcess, KeepsTheProportionsInTheMiddleOfATransparentSquare) {
    for (const IconData& icon :
         {png(pngOf(40, 20), 64),
          IconData{bytesFrom("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"40\" height=\"20\" "
                             "viewBox=\"0 0 40 20\"><rect width=\"40\" height=\"20\" "
                             "fill=\"#ff0080\"/></svg>"),
                   IconFormat::svg, 64, "test"}}) {
        const Pixels pixels(drawn(icon));
        ASSERT_TRUE(pixels.isSound());
        EXPECT_EQ(pixels.at(32, 8)[3], 0);
        EXPECT_EQ(pixels.at(32, 56)[3], 0);
        EXPECT_EQ(pixels.at(2, 32), (Colour{255, 0, 128, 255}));
        EXPECT_EQ(pixels.at(61, 32), (Colour{255, 0, 128, 255}));
    }
}

TEST(RenderProcess, KeepsWhatShinesThrough) {
    const Pixels pixels(drawn(png(pngOf(48, 48, std::string("\x40\x80\xC0\x80", 4)))));
    ASSERT_TRUE(pixels.isSound());
    const Colour colour = pixels.at(24, 24);
    EXPECT_EQ(colour[3], 128);
    EXPECT_NEAR(colour[0], 0x40, 2);
    EXPECT_NEAR(colour[1], 0x80, 2);
    EXPECT_NEAR(colour[2], 0xC0, 2);
}

TEST(RenderProcess, DrawsTheGenericIcon) {
    const Pixels pixels(drawn(genericIcon(64)));
    ASSERT_TRUE(pixels.isSound());
    EXPECT_EQ(pixels.at(0, 0)[3], 0);
    EXPECT_EQ(pixels.at(32, 10)[3], 255);
}

TEST(RenderProcess, DrawsFiltersAndPicturesWithinThePicture) {
    const Pixels blurred(
        drawn(svg("<filter id=\"f\"><feGaussianBlur stdDeviation=\"3\"/></filter>"
                  "<rect x=\"9\" y=\"9\" width=\"30\" height=\"30\" fill=\"#00f\" filter=\"url(#f)\"/>")));
    EXPECT_EQ(blurred.at(24, 24)[2], 255);
    EXPECT_GT(blurred.at(7, 24)[3], 0);
    EXPECT_LT(blurred.at(7, 24)[3], 255);
    // One red pixel.
    const Pixels within(drawn(
        svg("<image width=\"48\" height=\"48\" preserveAspectRatio=\"none\" xlink:href=\"data:image/png;base64,"
            "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mP8z8BQDwAEhQGAhKmMIQAAAABJRU5ErkJggg==\"/>")));
    EXPECT_GT(within.at(24, 24)[3], 100);
    EXPECT_GT(within.at(24, 24)[0], 200);
}

TEST(RenderProcess, LettersAreLeftOut) {
    const Pixels pixels(
        drawn(svg("<rect width=\"48\" height=\"48\" fill=\"#0f0\"/><text x=\"2\" y=\"40\" font-size=\"40\" "
                  "style=\"display:inline\">W<tspan>W</tspan></text>")));
    ASSERT_TRUE(pixels.isSound());
    for (std::size_t x = 0; x < 48; ++x) EXPECT_EQ(pixels.at(x, 30), (Colour{0, 255, 0, 255}));
}

TEST(RenderProcess, WhatIsElsewhereIsNotDrawn) {
    testing::TemporaryDirectory folder;
    testing::writeFile(folder.path("red.png"), pngOf(48, 48));
    testing::writeFile(folder.path("red.svg"),
                       kSvgBegin + "<rect id=\"r\" width=\"48\" height=\"48\" fill=\"red\"/></svg>");
    testing::writeFile(folder.path("red.css"), "rect { fill: red }");
    testing::writeFile(folder.path("secret"), "<rect width='48' height='48' fill='red'/>");
    for (const std::string& body : std::initializer_list<std::string>{
             "<image width=\"48\" height=\"48\" xlink:href=\"file://" + folder.path("red.png") + "\"/>",
             "<image width=\"48\" height=\"48\" xlink:href=\"" + folder.path("red.png") + "\"/>",
             "<image width=\"48\" height=\"48\" href=\"http://127.0.0.1:1/red.png\"/>",
             "<use xlink:href=\"file://" + folder.path("red.svg") + "#r\"/>",
             "<style>@import url(\"file://" + folder.path("red.css") +
                 "\"); rect { opacity: 0 }</style><rect width=\"48\" "
                 "height=\"48\"/>",
             "<xi:include xmlns:xi=\"http://www.w3.org/2001/XInclude\" href=\"file://" + folder.path("red.svg") +
                 "\"/>"}) {
        SCOPED_TRACE(body);
        const Pixels pixels(drawn(svg(body)));
        EXPECT_EQ(pixels.at(24, 24)[3], 0);
    }
    const std::string entity = "<!DOCTYPE svg [<!ENTITY e SYSTEM \"file://" + folder.path("secret") + "\">]>";
    const auto picture =
        renderInProcess(kProgram, {bytesFrom(entity + kSvgBegin + "&e;</svg>"), IconFormat::svg, 48, "test"}, 60s);
    if (picture) {
        EXPECT_EQ(Pixels(*picture).at(24, 24)[3], 0);
    }
}

TEST(RenderProcess, ScriptsDoNothing) {
    const Pixels pixels(
        drawn(svg("<script>document.documentElement.innerHTML = '&lt;rect width=\"48\" height=\"48\"/>'; for (;;) {}"
                  "</script><rect width=\"9\" height=\"9\" onload=\"for(;;){}\" fill=\"#00f\"/>")));
    EXPECT_EQ(pixels.at(24, 24)[3], 0);
    EXPECT_EQ(pixels.at(4, 4)[3], 255);
}

TEST(RenderProcess, RefusesWhatIsDamaged) {
    const std::string sound = pngOf(40, 40, std::string("\x01\x02\x03\x04", 4));
    EXPECT_EQ(refusal(png("")), EBADMSG);
    EXPECT_EQ(refusal(png(kPngBegin)), EBADMSG);
    EXPECT_EQ(refusal(png(sound.substr(0, 40))), EBADMSG);
    EXPECT_EQ(refusal(png(sound.substr(0, sound.size() / 2))), EBADMSG);
    EXPECT_EQ(refusal(png(kSvgBegin + "</svg>")), EBADMSG);
    EXPECT_EQ(refusal(svg("<g>")), EBADMSG);
    EXPECT_EQ(refusal({bytesFrom(std::string(5000, '\xff')), IconFormat::svg, 48, "test"}), EBADMSG);
    EXPECT_EQ(refusal({bytesFrom(sound), IconFormat::svg, 48, "test"}), EBADMSG);
}

TEST(RenderProcess, RefusesEntitiesThatGrow) {
    std::string declarations = "<!ENTITY a0 \"aaaaaaaaaa\">";
    for (int i = 1; i <= 12; ++i) {
        declarations += "<!ENTITY a" + std::to_string(i) + " \"";
        for (int j = 0; j < 10; ++j) declarations += "&a" + std::to_string(i - 1) + ";";
        declarations += "\">";
    }
    for (const std::string& text :
         {"<!DOCTYPE svg [" + declarations + "]>" + kSvgBegin + "<title>&a12;</title></svg>",
          "<!DOCTYPE svg [<!ENTITY a \"&b;\"><!ENTITY b \"&a;\">]>" + kSvgBegin + "<title>&a;</title></svg>"}) {
        EXPECT_EQ(refusal({bytesFrom(text), IconFormat::svg, 48, "test"}), EBADMSG);
    }
}

TEST(RenderProcess, RefusesAPictureOfABillionPixelsAndOneThatSwells) {
    EXPECT_EQ(refusal(png(kPngBegin + pngHeader(31'623, 31'623) + pngPart("IDAT", compressed(std::string(99, '\0'))) +
                          pngPart("IEND", ""))),
              EFBIG);
    EXPECT_EQ(refusal(png(kPngBegin + pngHeader(4097, 4096) + pngPart("IDAT", "") + pngPart("IEND", ""))), EFBIG);
    EXPECT_EQ(refusal(png(kPngBegin + pngHeader(0x7FFFFFFF, 1) + pngPart("IEND", ""))), EBADMSG);
    // Within the limit, but its pixels are missing.
    EXPECT_EQ(refusal(png(kPngBegin + pngHeader(4096, 4096) + pngPart("IEND", ""))), EBADMSG);
    EXPECT_TRUE(isSoundPng(drawn(png(pngOf(4096, 4096))), 48));
}

TEST(RenderProcess, EndsAnIconThatTakesMoreProcessorOrMemoryThanItMay) {
    std::string levels = "<rect id=\"a0\" width=\"1\" height=\"1\"/>";
    for (int i = 1; i < 12; ++i) {
        levels += "<g id=\"a" + std::to_string(i) + "\">";
        for (int j = 0; j < 10; ++j) levels += "<use xlink:href=\"#a" + std::to_string(i - 1) + "\"/>";
        levels += "</g>";
    }
    EXPECT_NE(refusal(svg("<defs>" + levels + "</defs><use xlink:href=\"#a11\"/>")), 0);
    std::string filters;
    for (int i = 0; i < 4000; ++i) filters += "<feTurbulence numOctaves=\"50\" baseFrequency=\"9\"/>";
    EXPECT_EQ(refusal(svg("<filter id=\"f\">" + filters +
                              "</filter><rect width=\"48\" height=\"48\" "
                              "filter=\"url(#f)\"/>",
                          1024)),
              EFBIG);
}

TEST(RenderProcess, KillsWhatTakesTooLongAndLeavesNoProcess) {
    testing::TemporaryDirectory folder;
    const std::string sleeper = folder.path("sleeper");
    // Stands for a renderer that hangs; what it writes down is its number.
    testing::writeFile(sleeper, "#!/bin/sh\necho $$ > \"" + folder.path("number") + "\"\nexec /bin/sleep 1000\n");
    ASSERT_EQ(::chmod(sleeper.c_str(), 0700), 0);
    const auto began = std::chrono::steady_clock::now();
    const auto picture = renderInProcess(sleeper, svg(""), 2s);
    ASSERT_FALSE(picture);
    EXPECT_EQ(picture.error().code, ETIMEDOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - began, 30s);
    const pid_t process = std::stoi(testing::readFile(folder.path("number")));
    EXPECT_EQ(::kill(process, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST(RenderProcess, BelievesNoRenderer) {
    testing::TemporaryDirectory folder;
    testing::writeFile(folder.path("other.png"), pngOf(47, 47));
    testing::writeFile(folder.path("right.png"), pngOf(48, 48));
    struct Row {
        std::string script;
        int expected;
    };
    for (const Row& row : {Row{"cat '" + folder.path("other.png") + "'", EIO},
                           {"cat '" + folder.path("right.png") + "'; exit 1", EIO},
                           {"cat '" + folder.path("right.png") + "'; exit 3", EBADMSG},
                           {"cat '" + folder.path("right.png") + "'; exit 4", EFBIG},
                           {"cat '" + folder.path("right.png") + "'; exit 5", EPERM},
                           {"cat '" + folder.path("right.png") + "'; kill -SEGV $$", EBADMSG},
                           {"cat '" + folder.path("right.png") + "'; kill -KILL $$", EFBIG},
                           {"cat '" + folder.path("right.png") + "' -", EIO},
                           {"exec cat /dev/zero", EIO},
                           {"true", EIO},
                           {"cat '" + folder.path("right.png") + "'", 0}}) {
        SCOPED_TRACE(row.script);
        const std::string program = folder.path("renderer");
        testing::writeFile(program, "#!/bin/sh\nPATH=/bin:/usr/bin\n" + row.script + "\n");
        ASSERT_EQ(::chmod(program.c_str(), 0700), 0);
        const auto picture = renderInProcess(program, svg(""), 60s);
        EXPECT_EQ(picture ? 0 : picture.error().code, row.expected);
        files::remove(program);
    }
}

TEST(RenderProcess, GetsNothingOfThisProcessButTheIcon) {
    testing::TemporaryDirectory folder;
    testing::writeFile(folder.path("open"), "");
    const int inherited = ::open(folder.path("open").c_str(), O_RDONLY);  // not close-on-exec
    ASSERT_GE(inherited, 0);
    ASSERT_EQ(::setenv("TARNWELL_TEST_SECRET", "1", 1), 0);
    const std::string program = folder.path("renderer");
    testing::writeFile(program, "#!/bin/sh\n/usr/bin/env > '" + folder.path("env") + "'\n/bin/ls -l /proc/self/fd > '" +
                                    folder.path("fds") + "'\n/bin/cat > '" + folder.path("input") + "'\n");
    ASSERT_EQ(::chmod(program.c_str(), 0700), 0);
    (void)renderInProcess(program, svg("<g/>"), 60s);
    EXPECT_EQ(::unsetenv("TARNWELL_TEST_SECRET"), 0);
    ::close(inherited);
    EXPECT_EQ(testing::readFile(folder.path("env")).find("TARNWELL_TEST_SECRET"), std::string::npos);
    EXPECT_EQ(testing::readFile(folder.path("fds")).find(folder.path("open")), std::string::npos);
    EXPECT_EQ(testing::readFile(folder.path("input")), kSvgBegin + "<g/></svg>");
}

TEST(RenderProcess, SaysWhatIsMissing) {
    const auto picture = renderInProcess("/nonexistent/tarnwell-render-icon", svg(""), 60s);
    ASSERT_FALSE(picture);
    EXPECT_EQ(picture.error().code, ENOENT);
    EXPECT_EQ(picture.error().userInfo.at(kErrorMessage), "\"/nonexistent/tarnwell-render-icon\" cannot be started");
    EXPECT_EQ(refusal(svg("", 0)), EINVAL);
    EXPECT_EQ(refusal(svg("", kMaxPictureSide + 1)), EINVAL);
}

class IconRendererTest : public ::testing::Test {
protected:
    std::unique_ptr<ProcessIconRenderer> renderer(const std::string& program = kProgram) {
        return std::make_unique<ProcessIconRenderer>(
            ProcessIconRenderer::Options{program, folder_.path("cache/icons"), 60s, {}}, log_);
    }
    std::vector<std::string> kept() const {
        std::vector<std::string> paths;
        if (!files::exists(folder_.path("cache/icons"))) return paths;
        for (const auto& entry : files::directory_iterator(folder_.path("cache/icons"))) paths.push_back(entry.path());
        return paths;
    }
    /// Keeps the picture at a time of its own; the file system's clock ticks slower than a loop.
    void keepAt(IconCache& cache, const std::string& key, const Bytes& picture, int second) {
        cache.keep(key, picture);
        const timespec times[2] = {{1'700'000'000 + second, 0}, {1'700'000'000 + second, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, folder_.path("cache/icons/" + key).c_str(), times, 0), 0);
    }
    std::uintmax_t keptBytes() const {
        std::uintmax_t bytes = 0;
        for (const auto& path : kept()) bytes += files::file_size(path);
        return bytes;
    }
    static constexpr const char* kNoProgram = "/nonexistent/renderer";

    testing::TemporaryDirectory folder_;
    testing::CapturingLog log_;
};

TEST_F(IconRendererTest, WhatWasDrawnOnceComesFromTheCache) {
    const auto first = renderer()->createImage(svg("<g/>"));
    ASSERT_TRUE(first) << describe(first.error());
    EXPECT_EQ(first->pixels, 48u);
    ASSERT_EQ(kept().size(), 1u);
    EXPECT_EQ(bytesFrom(testing::readFile(kept()[0])), first->png);
    EXPECT_EQ(files::status(kept()[0]).permissions(), files::perms(0600));
    const auto again = renderer(kNoProgram)->createImage(svg("<g/>"));
    ASSERT_TRUE(again);
    EXPECT_EQ(again->png, first->png);
    EXPECT_FALSE(renderer(kNoProgram)->createImage(svg("<g/>", 49)));
}

TEST_F(IconRendererTest, AnIconThatChangedIsDrawnAnew) {
    ASSERT_TRUE(renderer()->createImage(svg("<g/>")));
    EXPECT_FALSE(renderer(kNoProgram)->createImage(svg("<a/>")));
    ASSERT_TRUE(renderer()->createImage(svg("<a/>")));
    EXPECT_EQ(kept().size(), 2u);
}

TEST_F(IconRendererTest, ADamagedPictureInTheCacheIsNotTrustedAndDrawnAgain) {
    const auto first = renderer()->createImage(svg("<g/>"));
    ASSERT_TRUE(first);
    const std::string path = kept().at(0);
    const std::string sound = testing::readFile(path);
    std::string changed = sound;
    changed[changed.size() / 2] = static_cast<char>(changed[changed.size() / 2] ^ 1);
    for (const std::string& damaged : {std::string(), sound.substr(0, sound.size() - 1), sound + "x", changed,
                                       pngOf(47, 47), std::string(1u << 20, '\0')}) {
        testing::writeFile(path, damaged);
        EXPECT_FALSE(renderer(kNoProgram)->createImage(svg("<g/>")));
        const auto again = renderer()->createImage(svg("<g/>"));
        ASSERT_TRUE(again);
        EXPECT_EQ(again->png, first->png);
        EXPECT_EQ(testing::readFile(path), sound);
    }
    files::remove(path);
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_TRUE(renderer()->createImage(svg("<g/>")));
    EXPECT_EQ(testing::readFile(path), sound);
}

TEST_F(IconRendererTest, ACacheThatCannotBeWrittenIsDoneWithout) {
    testing::writeFile(folder_.path("cache"), "a file");
    EXPECT_TRUE(renderer()->createImage(svg("<g/>")));
    EXPECT_EQ(testing::readFile(folder_.path("cache")), "a file");
    ProcessIconRenderer without({kProgram, "", 60s, {}}, log_);
    EXPECT_TRUE(without.createImage(svg("<g/>")));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(IconRendererTest, TheCacheKeepsTheYoungestPicturesAndWhatIsNotIts) {
    testing::makeDirectories(folder_.path("cache/icons"));
    testing::writeFile(folder_.path("cache/icons/notes.txt"), "somebody's");
    IconCache cache(folder_.path("cache/icons"), {.files = 8});
    const Bytes picture = bytesFrom(pngOf(48, 48));
    std::vector<std::string> keys;
    for (int i = 0; i < 20; ++i) {
        keys.push_back(IconCache::keyOf(svg("<g id=\"" + std::to_string(i) + "\"/>")));
        keepAt(cache, keys.back(), picture, i);
        EXPECT_LE(kept().size(), 9u);
        EXPECT_TRUE(cache.find(keys.back(), 48));
    }
    for (int i = 0; i < 12; ++i) EXPECT_FALSE(cache.find(keys[static_cast<std::size_t>(i)], 48)) << i;
    for (std::size_t i = 15; i < 20; ++i) EXPECT_TRUE(cache.find(keys[i], 48)) << i;
    EXPECT_EQ(testing::readFile(folder_.path("cache/icons/notes.txt")), "somebody's");
}

TEST_F(IconRendererTest, TheCacheKeepsSoManyBytesAndNoMore) {
    const Bytes picture = bytesFrom(pngOf(48, 48));
    const std::size_t room = picture.size() * 8;
    IconCache cache(folder_.path("cache/icons"), {.bytes = room});
    std::vector<std::string> keys;
    for (int i = 0; i < 20; ++i) {
        keys.push_back(IconCache::keyOf(svg("<g id=\"" + std::to_string(i) + "\"/>")));
        keepAt(cache, keys.back(), picture, i);
        EXPECT_LE(keptBytes(), room);
        if (i < 8) {
            EXPECT_EQ(kept().size(), keys.size()) << "there is room";
        }
        EXPECT_TRUE(cache.find(keys.back(), 48));
    }
    for (std::size_t i = 0; i < 12; ++i) EXPECT_FALSE(cache.find(keys[i], 48)) << i;
    for (std::size_t i = 15; i < 20; ++i) EXPECT_TRUE(cache.find(keys[i], 48)) << i;
    // What is there already takes no more room when it is kept again.
    const auto before = kept().size();
    cache.keep(keys.back(), picture);
    EXPECT_EQ(kept().size(), before);
}

TEST_F(IconRendererTest, WhoAsksForOneIconInEverySizeLeavesTheOthersAlone) {
    IconCache cache(folder_.path("cache/icons"), {.files = 20, .sizesOfAnIcon = 3});
    std::vector<std::string> others;
    for (int i = 0; i < 5; ++i) {
        others.push_back(IconCache::keyOf(svg("<g id=\"" + std::to_string(i) + "\"/>")));
        keepAt(cache, others.back(), bytesFrom(pngOf(48, 48)), i);
    }
    const auto keyAt = [](unsigned side) { return IconCache::keyOf(svg("<a/>", side)); };
    for (unsigned side = 1; side <= 100; ++side) {
        keepAt(cache, keyAt(side), bytesFrom(pngOf(side, side)), 100 + static_cast<int>(side));
        EXPECT_LE(kept().size(), others.size() + 3);
        for (unsigned one = 1; one <= side; ++one) {
            EXPECT_EQ(cache.find(keyAt(one), one).has_value(), one + 3 > side) << one << " of " << side;
        }
    }
    for (const auto& other : others) EXPECT_TRUE(cache.find(other, 48));
}

TEST_F(IconRendererTest, WhatCannotBeDrawnIsTriedOnceAndSaidInTheLog) {
    testing::writeFile(folder_.path("counting"), "#!/bin/sh\necho x >> '" + folder_.path("count") + "'\nexit 3\n");
    ASSERT_EQ(::chmod(folder_.path("counting").c_str(), 0700), 0);
    const auto counting = renderer(folder_.path("counting"));
    for (int i = 0; i < 3; ++i) {
        const auto image = counting->createImage(svg("<g/>"));
        ASSERT_FALSE(image);
        EXPECT_EQ(image.error().code, EBADMSG);
    }
    EXPECT_EQ(testing::readFile(folder_.path("count")), "x\n");
    EXPECT_EQ(log_.texts(), std::vector<std::string>{"[DEBUG] no picture of the icon \"test\"; POSIX EBADMSG (Bad "
                                                     "message): no picture can be made of it"});
    EXPECT_TRUE(kept().empty());
    // That the program cannot be run says nothing of the icon.
    const auto missing = renderer(folder_.path("later"));
    EXPECT_FALSE(missing->createImage(svg("<g/>")));
    files::copy_file(kProgram, folder_.path("later"));
    EXPECT_TRUE(missing->createImage(svg("<g/>")));
}

TEST_F(IconRendererTest, ManyThreadsMayAskAtOnce) {
    const auto shared = renderer();
    std::vector<std::thread> threads;
    std::atomic<int> drawn = 0;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&, i] {
            for (int j = 0; j < 3; ++j)
                drawn += shared->createImage(svg("<g/>", 40U + static_cast<unsigned>(i + j) % 4U)).has_value();
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(drawn, 24);
    EXPECT_EQ(kept().size(), 4u);
}

TEST_F(IconRendererTest, TheDestinationTakesExactlyOneSoundPng) {
    const auto renderer = this->renderer();
    const IconImage sound{4, bytesFrom(pngOf(4, 4))};
    const auto data = renderer->createData();
    ASSERT_TRUE(data && data->empty());
    EXPECT_EQ(renderer->createDestination(*data, "image/jpeg", 1), nullptr);
    EXPECT_EQ(renderer->createDestination(*data, kPngType, 2), nullptr);
    EXPECT_FALSE(renderer->createDestination(*data, kPngType, 1)->finalize());
    const auto twice = renderer->createDestination(*data, kPngType, 1);
    twice->addImage(sound);
    twice->addImage(sound);
    EXPECT_FALSE(twice->finalize());
    const auto damaged = renderer->createDestination(*data, kPngType, 1);
    damaged->addImage({5, sound.png});
    EXPECT_FALSE(damaged->finalize());
    const auto once = renderer->createDestination(*data, kPngType, 1);
    once->addImage(sound);
    EXPECT_TRUE(once->finalize());
    EXPECT_EQ(*data, sound.png);
}

std::string lineOf(const std::string& file, const std::string& begin) {
    std::string text;
    if (std::FILE* open = std::fopen(file.c_str(), "r")) {
        char buffer[4096];
        for (std::size_t count; (count = std::fread(buffer, 1, sizeof buffer, open)) > 0;) text.append(buffer, count);
        std::fclose(open);
    }
    const std::size_t at = text.find("\n" + begin);
    if (at == std::string::npos) return {};
    return text.substr(at + 1, text.find('\n', at + 1) - at - 1);
}

TEST(RenderProgram, IsConfinedBeforeItReadsAByte) {
    int input[2], output[2];
    ASSERT_EQ(::pipe2(input, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(output, O_CLOEXEC), 0);
    const int extra = ::open("/etc/passwd", O_RDONLY);  // inherited
    const pid_t process = ::fork();
    ASSERT_GE(process, 0);
    if (process == 0) {
        ::dup2(input[0], STDIN_FILENO);
        ::dup2(output[1], STDOUT_FILENO);
        ::execl(kProgram.c_str(), kProgram.c_str(), "svg", "48", nullptr);
        ::_exit(127);
    }
    ::close(input[0]);
    ::close(output[1]);
    ::close(extra);
    const std::string proc = "/proc/" + std::to_string(process);
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (lineOf(proc + "/status", "Seccomp:") != "Seccomp:\t2" && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_EQ(lineOf(proc + "/status", "Seccomp:"), "Seccomp:\t2");
    EXPECT_EQ(lineOf(proc + "/status", "NoNewPrivs:"), "NoNewPrivs:\t1");
    EXPECT_EQ(lineOf(proc + "/limits", "Max address space"),
              "Max address space         536870912            536870912            bytes     ");
    EXPECT_EQ(lineOf(proc + "/limits", "Max cpu time"),
              "Max cpu time              2                    2                    seconds   ");
    if (::geteuid() == 0) {
        // What a process like this has open is shown to root only.
        std::size_t open = 0;
        for ([[maybe_unused]] const auto& entry : files::directory_iterator(proc + "/fd")) ++open;
        EXPECT_EQ(open, 3u);
    }
    const Bytes icon = genericIcon(48).bytes;
    EXPECT_EQ(::write(input[1], icon.data(), icon.size()), std::ssize(icon));
    ::close(input[1]);
    Bytes picture(64 * 1024);
    std::size_t filled = 0;
    for (ssize_t count; (count = ::read(output[0], picture.data() + filled, picture.size() - filled)) > 0;) {
        filled += static_cast<std::size_t>(count);
    }
    ::close(output[0]);
    EXPECT_TRUE(isSoundPng(ByteView(picture).first(filled), 48));
    int status = -1;
    EXPECT_EQ(::waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
}

TEST(RenderProgram, RefusesOtherArguments) {
    for (const char* arguments : {"", "png", "gif 48", "png 0", "png 1025", "png -1", "png x", "png 48 49"}) {
        const int status = std::system(("'" + kProgram + "' " + arguments + " </dev/null >/dev/null").c_str());
        EXPECT_EQ(WEXITSTATUS(status), 2) << arguments;
    }
}

}  // namespace
}  // namespace tarnwell::icons
