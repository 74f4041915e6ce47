#include "platform/mime/NameIndex.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/mime/TypeFolder.h"

namespace tarnwell::mime {
namespace {

std::string typeOf(const NameIndex& index, std::string_view name) {
    const auto number = index.find(name);
    return number ? index.typeName(*number) : "";
}

struct Row {
    std::string name, type;
};
void expectTypes(const NameIndex& index, const std::vector<Row>& rows) {
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(typeOf(index, row.name), row.type);
    }
}

NameIndex indexOf(const TypeFolder& folder, std::string_view content) {
    return NameIndex::load({folder.write("globs2", content)});
}

TEST(NameIndex, FindsSuffixesLiteralsAndPatterns) {
    const TypeFolder folder;
    const NameIndex index = indexOf(folder,
                                    "# weight:type:pattern\n"
                                    "50:text/plain:*.txt\n"
                                    "50:application/gzip:*.gz\n"
                                    "50:application/tarball:*.tar.gz\n"
                                    "50:text/makefile:Makefile\n"
                                    "50:text/backup:*~\n"
                                    "50:text/revision:*,v\n"
                                    "50:text/versioned:*_v1.txt\n"
                                    "50:video/vdr:[0-9][0-9][0-9].vdr\n"
                                    "50:text/manual:*.[1-9]\n"
                                    "40:text/readme:readme*\n"
                                    "50:text/single:?\n");
    expectTypes(index, {
                           {"a.txt", "text/plain"},
                           {".txt", "text/plain"},
                           {"a.b.c.txt", "text/plain"},
                           {"a..txt", "text/plain"},
                           {"A.TXT", "text/plain"},
                           {"a.gz", "application/gzip"},
                           {"a.tar.gz", "application/tarball"},
                           {"a.Tar.gZ", "application/tarball"},
                           {".tar.gz", "application/tarball"},
                           {"tar.gz", "application/gzip"},
                           {"makefile", "text/makefile"},
                           {"MAKEFILE", "text/makefile"},
                           {"Makefile.am", ""},
                           {"xMakefile", ""},
                           {"a.txt~", "text/backup"},
                           {"~", "text/backup"},
                           {"a.c,v", "text/revision"},
                           {"report_v1.txt", "text/versioned"},
                           {"report_v2.txt", "text/plain"},
                           {"123.vdr", "video/vdr"},
                           {"12.vdr", ""},
                           {"printf.3", "text/manual"},
                           {"printf.0", ""},
                           {"README.now", "text/readme"},
                           {"x", "text/single"},
                           {"xy", ""},
                           {"txt", ""},
                           {"a.txtx", ""},
                           {"a.txt ", ""},
                           {"a.", ""},
                           {".", "text/single"},
                           {"..", ""},
                           {"...", ""},
                           {"", ""},
                           {std::string("a\0b.txt", 7), "text/plain"},
                           {"\xff\xfe.txt", "text/plain"},
                           {"\xff\xfe.3", "text/manual"},
                           {std::string(251, 'n') + ".txt", "text/plain"},
                           {std::string(252, 'n') + ".txt", ""},
                       });
}

TEST(NameIndex, PrefersWeightThenLengthThenTheEarlierLine) {
    const TypeFolder folder;
    const NameIndex index = indexOf(folder,
                                    "60:a/heavy:*.gz\n"
                                    "50:a/long:*.tar.gz\n"
                                    "50:a/short:*.b\n"
                                    "50:a/longer:*.a.b\n"
                                    "50:a/first:*.same\n"
                                    "50:a/second:*.same\n"
                                    "70:a/third:*.SAME2\n"
                                    "80:a/fourth:*.same2\n"
                                    "50:a/odd:*-x.odd\n"
                                    "50:a/plain:*.odd\n"
                                    "40:a/light:*-y.odd\n"
                                    "60:a/heavyodd:*z.odd\n"
                                    "10:a/literal:core.odd\n"
                                    "50:a/pattern:p*.q\n"
                                    "50:a/longpattern:pp*.q\n"
                                    "60:a/heavypattern:*p?.q\n"
                                    "90:a/never:*.od?\n");
    expectTypes(index, {
                           {"x.tar.gz", "a/heavy"},
                           {"x.a.b", "a/longer"},
                           {"x.c.b", "a/short"},
                           {"x.same", "a/first"},
                           {"x.same2", "a/fourth"},
                           {"1-x.odd", "a/odd"},
                           {"1-y.odd", "a/plain"},
                           {"1-z.odd", "a/heavyodd"},
                           {"core.odd", "a/literal"},
                           {"pa.q", "a/heavypattern"},
                           {"pab.q", "a/pattern"},
                           {"ppab.q", "a/longpattern"},
                       });
}

TEST(NameIndex, HeedsTheCaseWhereALineSaysSo) {
    const TypeFolder folder;
    const NameIndex index = indexOf(folder,
                                    "50:text/c++:*.C:cs\n"
                                    "50:text/c:*.c:cs\n"
                                    "50:application/core:core:cs\n"
                                    "50:text/g:*.G:other,cs:more\n"
                                    "50:text/tilde:*X~:cs\n"
                                    "50:text/pattern:[A-C]*!:cs\n"
                                    // The same again for readers that know no flags.
                                    "50:text/c++:*.C\n"
                                    "50:text/c:*.c\n"
                                    "50:application/core:core\n"
                                    "50:text/other:*.g:other\n");
    expectTypes(index, {
                           {"a.C", "text/c++"},
                           {"a.c", "text/c"},
                           {"core", "application/core"},
                           {"Core", ""},
                           {"CORE", ""},
                           {"a.G", "text/g"},
                           {"a.g", "text/other"},
                           {"aX~", "text/tilde"},
                           {"ax~", ""},
                           {"Abc!", "text/pattern"},
                           {"abc!", ""},
                       });
}

TEST(NameIndex, LetsEarlierDirectoriesWin) {
    const TypeFolder folder;
    const auto first = folder.write("1/globs2",
                                    "50:mine/a:*.a\n"
                                    "50:mine/b:*.b\n"
                                    "50:theirs/d:__NOGLOBS__\n"
                                    "50:theirs/d:*.d2\n");
    const auto second = folder.write("2/globs2",
                                     "50:theirs/a:*.a\n"
                                     "60:theirs/b:*.b\n"
                                     "50:theirs/c:*.c\n"
                                     "50:theirs/d:*.d\n");
    const auto third = folder.write("3/globs2", "50:third/c:*.c\n50:theirs/d:*.d3\n");
    const NameIndex index = NameIndex::load({first, folder.path() / "missing", second, third});
    expectTypes(index, {
                           {"x.a", "mine/a"},
                           {"x.b", "theirs/b"},
                           {"x.c", "theirs/c"},
                           {"x.d", ""},
                           {"x.d2", "theirs/d"},
                           {"x.d3", ""},
                       });
}

TEST(NameIndex, PassesOverWhatMakesNoSense) {
    const TypeFolder folder;
    const std::string tooLong(256, 'x');
    const NameIndex index = indexOf(folder,
                                    "\n:\n::\n50\n50:\n50:text/x\n50:text/x:\nx:text/a:*.a\n-1:text/a:*.a\n"
                                    "5x:text/a:*.a\n:text/a:*.a\n50:notype:*.a\n99999999999999:text/a:*.a\n"
                                    "50:text/a:*.\0\n50:text/long:" +
                                        tooLong +
                                        "\n"
                                        "50:text/star:*\\\n50:text/open:[a\n50:text/open2:[!]\n"
                                        "50:text/last:*.last");
    expectTypes(index, {{"x.a", ""}, {"x.last", "text/last"}, {tooLong, ""}, {"a", ""}});
    EXPECT_EQ(NameIndex::load({}).find("a.txt"), std::nullopt);
    EXPECT_EQ(NameIndex::load({folder.path() / "globs2"}).find("x.last"), std::nullopt);
}

TEST(NameIndex, DoesNotBlockOnAFIFO) {
    const TypeFolder folder;
    ASSERT_EQ(::mkfifo((folder.path() / "globs2").c_str(), 0600), 0);
    EXPECT_EQ(NameIndex::load({folder.path()}).typeCount(), 0U);
}

TEST(NameIndex, HoldsManySuffixes) {
    const TypeFolder folder;
    std::string content;
    for (int i = 0; i < 20'000; ++i) {
        content += "50:many/" + std::to_string(i) + ":*.s" + std::to_string(i) + "\n";
        content += "50:literal/" + std::to_string(i) + ":l" + std::to_string(i) + "\n";
    }
    const NameIndex index = indexOf(folder, content);
    EXPECT_EQ(index.typeCount(), 40'000U);
    for (int i = 0; i < 20'000; ++i) {
        ASSERT_EQ(typeOf(index, "x.S" + std::to_string(i)), "many/" + std::to_string(i));
        ASSERT_EQ(typeOf(index, "L" + std::to_string(i)), "literal/" + std::to_string(i));
    }
    EXPECT_EQ(typeOf(index, "x.s20000"), "");
}

}  // namespace
}  // namespace tarnwell::mime
