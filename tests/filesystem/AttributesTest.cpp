#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <set>

#include "platform/filesystem/Beneath.h"
#include "tests/filesystem/Sandbox.h"

namespace tarnwell::filesystem {
namespace {

using Names = std::set<std::string>;

Names asSet(const Result<AttributeNames>& names) {
    EXPECT_TRUE(names);
    return names ? Names(names->user.begin(), names->user.end()) : Names{"failed"};
}

/// The value, or the name of the errno.
std::string valueText(const Result<std::size_t>& size, const std::string& buffer) {
    return size ? buffer.substr(0, *size) : errnoName(static_cast<int>(size.error().code));
}

std::span<std::uint8_t> spanOf(std::string& buffer) {
    return {reinterpret_cast<std::uint8_t*>(buffer.data()), buffer.size()};
}

class Attributes : public ::testing::Test {
protected:
    Attributes() {
        sandbox_.file("file");
        sandbox_.folder("folder");
        sandbox_.link("link", "file");
        sandbox_.link("folderLink", "folder");
        sandbox_.fifo("fifo");
        root_ = sandbox_.open();
        file_ = Descriptor(::open(sandbox_.path("file").c_str(), O_RDONLY | O_CLOEXEC));
    }
    std::string at(const char* entry, const std::string& name, std::size_t room = 100) {
        std::string buffer(room, '\0');
        return valueText(getAttributeAt(root_.get(), entry, name, spanOf(buffer)), buffer);
    }
    std::string of(int descriptor, const std::string& name, std::size_t room = 100) {
        std::string buffer(room, '\0');
        return valueText(getAttributeOf(descriptor, name, spanOf(buffer)), buffer);
    }
    Sandbox sandbox_;
    Descriptor root_, file_;
};

TEST_F(Attributes, AreSetReadAndRemoved) {
    const std::string odd = std::string("\0\xff", 2);
    for (const std::string& value : {std::string("hello"), std::string(), odd}) {
        ASSERT_TRUE(setAttributeOf(file_.get(), "name", bytesOf(value)));
        EXPECT_EQ(at("file", "name"), value);
        EXPECT_EQ(of(file_.get(), "name"), value);
        EXPECT_EQ(getAttributeAt(root_.get(), "file", "name", {}), value.size());
        EXPECT_EQ(getAttributeOf(file_.get(), "name", {}), value.size());
    }
    char raw[8];
    EXPECT_EQ(::getxattr(sandbox_.path("file").c_str(), "user.name", raw, sizeof raw), 2);
    ASSERT_TRUE(removeAttributeOf(file_.get(), "name"));
    EXPECT_EQ(at("file", "name"), "ENODATA");
    EXPECT_EQ(removeAttributeOf(file_.get(), "name").error(), posixError(ENODATA));
}

TEST_F(Attributes, AreAddedOnlyWhereThereAreNone) {
    ASSERT_TRUE(addAttributeOf(file_.get(), "name", bytesOf("first")));
    EXPECT_EQ(addAttributeOf(file_.get(), "name", bytesOf("second")).error(), posixError(EEXIST));
    EXPECT_EQ(at("file", "name"), "first");
    ASSERT_TRUE(setAttributeOf(file_.get(), "name", bytesOf("")));
    EXPECT_EQ(addAttributeOf(file_.get(), "name", bytesOf("third")).error(), posixError(EEXIST));
    EXPECT_EQ(at("file", "name"), "");
    EXPECT_EQ(addAttributeOf(file_.get(), "", bytesOf("")).error(), posixError(EINVAL));
}

TEST_F(Attributes, OfAFolderAreLikeThoseOfAFile) {
    const Descriptor folder(::open(sandbox_.path("folder").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(setAttributeOf(folder.get(), "name", bytesOf("value")));
    EXPECT_EQ(at("folder", "name"), "value");
    EXPECT_EQ(asSet(attributeNamesAt(root_.get(), "folder")), Names{"name"});
}

TEST_F(Attributes, AreReadThroughADescriptorThatOnlyStandsForAPlace) {
    ASSERT_TRUE(setAttributeOf(file_.get(), "name", bytesOf("value")));
    const Descriptor place = sandbox_.open("file");
    EXPECT_EQ(of(place.get(), "name"), "value");
    EXPECT_EQ(of(place.get(), "missing"), "ENODATA");
    EXPECT_EQ(asSet(attributeNamesOf(place.get())), Names{"name"});
    EXPECT_EQ(asSet(attributeNamesOf(file_.get())), Names{"name"});
    EXPECT_EQ(setAttributeOf(place.get(), "name", bytesOf("x")).error(), posixError(EBADF));
    // The name may be gone meanwhile, or be another's.
    ASSERT_EQ(::rename(sandbox_.path("fifo").c_str(), sandbox_.path("file").c_str()), 0);
    EXPECT_EQ(of(place.get(), "name"), "value");
}

TEST_F(Attributes, AreListedWithoutThoseOfOtherSpaces) {
    EXPECT_EQ(asSet(attributeNamesAt(root_.get(), "file")), Names{});
    for (const char* name : {"a", "user.b", "com.example#PS"}) {
        ASSERT_TRUE(setAttributeOf(file_.get(), name, bytesOf("1")));
    }
    if (::geteuid() == 0) {
        ASSERT_EQ(::setxattr(sandbox_.path("file").c_str(), "trusted.c", "1", 1, 0), 0);
    }
    EXPECT_EQ(asSet(attributeNamesAt(root_.get(), "file")), (Names{"a", "user.b", "com.example#PS"}));
    EXPECT_FALSE(attributeNamesAt(root_.get(), "file")->hasAccessList);
}

TEST_F(Attributes, AreListedHoweverManyThereAre) {
    Names expected;
    for (int i = 0; i < 60; ++i) {
        const std::string name = std::to_string(i) + std::string(30, 'n');
        ASSERT_TRUE(setAttributeOf(file_.get(), name, bytesOf("")));
        expected.insert(name);
    }
    EXPECT_EQ(asSet(attributeNamesAt(root_.get(), "file")), expected);
    EXPECT_EQ(asSet(attributeNamesOf(file_.get())), expected);
}

TEST_F(Attributes, OfALinkAreNotThoseOfItsTarget) {
    ASSERT_TRUE(setAttributeOf(file_.get(), "name", bytesOf("value")));
    EXPECT_EQ(at("link", "name"), "ENODATA");
    EXPECT_EQ(asSet(attributeNamesAt(root_.get(), "link")), Names{});
    const auto link = openBeneath(root_.get(), "link", O_PATH | O_NOFOLLOW);
    ASSERT_TRUE(link);
    EXPECT_EQ(of(link->get(), "name"), "ENODATA");
    EXPECT_EQ(asSet(attributeNamesOf(link->get())), Names{});
}

TEST_F(Attributes, OfAFIFOAreNoneAndDoNotBlock) {
    EXPECT_EQ(at("fifo", "name"), "ENODATA");
    EXPECT_EQ(asSet(attributeNamesAt(root_.get(), "fifo")), Names{});
}

TEST_F(Attributes, HaveLimitsThatAreTold) {
    const std::string longest(250, 'n');
    ASSERT_TRUE(setAttributeOf(file_.get(), longest, bytesOf("value")));
    EXPECT_EQ(at("file", longest), "value");
    const std::string tooLong = longest + "n";
    for (const auto& [name, code] :
         {std::pair{tooLong, ENAMETOOLONG}, {std::string(), EINVAL}, {std::string("a\0b", 3), EINVAL}}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(at("file", name), errnoName(code));
        EXPECT_EQ(of(file_.get(), name), errnoName(code));
        EXPECT_EQ(setAttributeOf(file_.get(), name, {}).error(), posixError(code));
        EXPECT_EQ(removeAttributeOf(file_.get(), name).error(), posixError(code));
    }
    EXPECT_EQ(at("file", longest, 4), "ERANGE");
    EXPECT_EQ(of(file_.get(), longest, 4), "ERANGE");
    EXPECT_EQ(at("file", longest, 5), "value");
    EXPECT_EQ(at("file", longest, 2 * kMaxAttributeBytes), "value");
    EXPECT_EQ(of(file_.get(), longest, 2 * kMaxAttributeBytes), "value");
    const Bytes tooMuch(kMaxAttributeBytes + 1);
    EXPECT_EQ(setAttributeOf(file_.get(), "big", tooMuch).error(), posixError(E2BIG));
}

TEST_F(Attributes, HoldSixtyFourKibibytesWhereTheFileSystemDoes) {
    const Bytes value(kMaxAttributeBytes, 'v');
    const auto set = setAttributeOf(file_.get(), "big", value);
    if (!set) GTEST_SKIP() << "this file system takes less: " << describe(set.error());
    EXPECT_EQ(getAttributeAt(root_.get(), "file", "big", {}), kMaxAttributeBytes);
    EXPECT_EQ(at("file", "big", kMaxAttributeBytes), std::string(kMaxAttributeBytes, 'v'));
    EXPECT_EQ(of(file_.get(), "big", kMaxAttributeBytes - 1), "ERANGE");
}

TEST_F(Attributes, WantDirectEntries) {
    for (const char* name : {"", ".", "..", "folder/x"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(at(name, "name"), "EINVAL");
        EXPECT_EQ(attributeNamesAt(root_.get(), name).error(), posixError(EINVAL));
    }
    EXPECT_EQ(at("missing", "name"), "ENOENT");
    EXPECT_EQ(attributeNamesAt(root_.get(), "missing").error(), posixError(ENOENT));
}

/// Lets this process and what it becomes do without the calls that take a folder and a name.
bool forgetNewCalls() {
    std::array<sock_filter, 5> program{{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, 463, 0, 2),
        BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, 466, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog filter{program.size(), program.data()};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

TEST(AttributesOnAnOlderKernel, AreTheSame) {
    const Sandbox sandbox;
    const std::string output = sandbox.path("output");
    const std::string result = inChild([&]() -> std::string {
        const int file = ::open(output.c_str(), O_WRONLY | O_CREAT, 0644);
        ::dup2(file, STDOUT_FILENO);
        ::dup2(file, STDERR_FILENO);
        if (!forgetNewCalls()) return "skip: no system call filter: " + std::string(std::strerror(errno));
        ::execl("/proc/self/exe", "test", "--gtest_filter=Attributes.*", nullptr);
        return "skip: exec: " + std::string(std::strerror(errno));
    });
    if (result.starts_with("skip: ")) GTEST_SKIP() << result;
    const Descriptor file(::open(output.c_str(), O_RDONLY | O_CLOEXEC));
    const std::string told = contentOf(file.get());
    EXPECT_EQ(result, "") << told;
    EXPECT_NE(told.find("from 1 test suite ran"), std::string::npos) << told;
    EXPECT_NE(told.find("[       OK ] Attributes.AreSetReadAndRemoved"), std::string::npos) << told;
}

}  // namespace
}  // namespace tarnwell::filesystem
