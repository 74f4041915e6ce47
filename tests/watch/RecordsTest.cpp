// The kernel's records, also cut and damaged.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <sys/fanotify.h>
#include <sys/inotify.h>

#include <fcntl.h>

#include <gtest/gtest.h>

#include "platform/watch/FanotifyRecords.h"
#include "platform/watch/FileHandle.h"
#include "platform/watch/InotifyRecords.h"

namespace tarnwell::watch {
namespace {

/// Records are built as text, whose growing GCC 12 understands.
template <typename Structure>
std::string structureBytes(const Structure& structure) {
    return {reinterpret_cast<const char*>(&structure), sizeof structure};
}

std::string inotifyRecord(int watch, std::uint32_t mask, const std::string& name) {
    std::string bytes(name.empty() ? 0 : (name.size() / 16 + 1) * 16, '\0');
    bytes.replace(0, name.size(), name);
    return structureBytes(inotify_event{watch, mask, 0, static_cast<std::uint32_t>(bytes.size())}) + bytes;
}

std::string infoRecord(std::uint8_t type, int handleType, const std::string& handle, const std::string& name) {
    std::string bytes = structureBytes(std::uint64_t{0x1122334455667788}) +
                        structureBytes(static_cast<std::uint32_t>(handle.size())) +
                        structureBytes(std::int32_t{handleType}) + handle + name + '\0';
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return structureBytes(fanotify_event_info_header{type, 0, static_cast<std::uint16_t>(bytes.size() + 4)}) + bytes;
}

std::string fanotifyRecord(std::uint64_t mask, const std::string& infos) {
    fanotify_event_metadata header{};
    header.event_len = static_cast<std::uint32_t>(sizeof header + infos.size());
    header.vers = FANOTIFY_METADATA_VERSION;
    header.metadata_len = sizeof header;
    header.mask = mask;
    header.fd = FAN_NOFD;
    return structureBytes(header) + infos;
}

TEST(InotifyRecordsTest, AreTakenOneByOne) {
    const std::string bytes = inotifyRecord(3, IN_CREATE, "a") + inotifyRecord(4, IN_IGNORED, "") +
                              inotifyRecord(5, IN_MODIFY, "123456789012345");
    ByteView rest = bytesOf(bytes);
    auto record = takeInotifyRecord(rest);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->watch, 3);
    EXPECT_EQ(record->mask, std::uint32_t{IN_CREATE});
    EXPECT_EQ(record->name, "a");
    record = takeInotifyRecord(rest);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->watch, 4);
    EXPECT_EQ(record->name, "");
    record = takeInotifyRecord(rest);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->name, "123456789012345");
    EXPECT_FALSE(takeInotifyRecord(rest));
    EXPECT_TRUE(rest.empty());
}

TEST(InotifyRecordsTest, ACutRecordIsNone) {
    const std::string bytes = inotifyRecord(3, IN_CREATE, "name");
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        ByteView rest = bytesOf(bytes).first(size);
        EXPECT_FALSE(takeInotifyRecord(rest)) << size;
        EXPECT_EQ(rest.size(), size);
    }
}

TEST(InotifyRecordsTest, ALengthThatLiesIsRefused) {
    std::string bytes = inotifyRecord(3, IN_CREATE, "name");
    for (std::uint32_t length : {17U, 0x7fffffffU, 0xffffffffU}) {
        std::memcpy(bytes.data() + offsetof(inotify_event, len), &length, sizeof length);
        ByteView rest = bytesOf(bytes);
        EXPECT_FALSE(takeInotifyRecord(rest)) << length;
    }
}

TEST(FanotifyRecordsTest, AreTakenOneByOne) {
    const std::string bytes =
        fanotifyRecord(FAN_CREATE, infoRecord(FAN_EVENT_INFO_TYPE_DFID_NAME, 1, "handle01", "name")) +
        fanotifyRecord(FAN_Q_OVERFLOW, "") +
        fanotifyRecord(FAN_ATTRIB | FAN_ONDIR, infoRecord(FAN_EVENT_INFO_TYPE_DFID_NAME, 0x81, "handle012345", "."));
    ByteView rest = bytesOf(bytes);
    auto record = takeFanotifyRecord(rest);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->mask, std::uint64_t{FAN_CREATE});
    EXPECT_EQ(record->directory, FileHandle::bytesOf(1, "handle01"));
    EXPECT_EQ(record->name, "name");
    record = takeFanotifyRecord(rest);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->mask, std::uint64_t{FAN_Q_OVERFLOW});
    EXPECT_EQ(record->directory, "");
    record = takeFanotifyRecord(rest);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->directory, FileHandle::bytesOf(0x81, "handle012345"));
    EXPECT_EQ(record->name, "");
    EXPECT_FALSE(takeFanotifyRecord(rest));
    EXPECT_TRUE(rest.empty());
}

TEST(FanotifyRecordsTest, OtherInformationIsPassedOver) {
    const std::string bytes =
        fanotifyRecord(FAN_MODIFY, infoRecord(FAN_EVENT_INFO_TYPE_FID, 1, "theother", "") +
                                       infoRecord(FAN_EVENT_INFO_TYPE_DFID_NAME, 1, "handle01", "name") +
                                       infoRecord(77, 1, "future00", "future"));
    ByteView rest = bytesOf(bytes);
    auto record = takeFanotifyRecord(rest);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->directory, FileHandle::bytesOf(1, "handle01"));
    EXPECT_EQ(record->name, "name");
}

TEST(FanotifyRecordsTest, HandlesDifferByTypeAndByBytes) {
    EXPECT_NE(FileHandle::bytesOf(1, "handle"), FileHandle::bytesOf(2, "handle"));
    EXPECT_NE(FileHandle::bytesOf(1, "handle"), FileHandle::bytesOf(1, std::string("handle\0", 7)));
    EXPECT_NE(FileHandle::bytesOf(1, ""), "");
}

TEST(FanotifyRecordsTest, ACutRecordIsNone) {
    const std::string bytes =
        fanotifyRecord(FAN_CREATE, infoRecord(FAN_EVENT_INFO_TYPE_DFID_NAME, 1, "handle01", "name"));
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        ByteView rest = bytesOf(bytes).first(size);
        EXPECT_FALSE(takeFanotifyRecord(rest)) << size;
        EXPECT_EQ(rest.size(), size);
    }
}

TEST(FanotifyRecordsTest, ALengthThatLiesIsRefused) {
    const std::string whole =
        fanotifyRecord(FAN_CREATE, infoRecord(FAN_EVENT_INFO_TYPE_DFID_NAME, 1, "handle01", "name"));
    struct Lie {
        const char* name;
        std::size_t offset;
        std::size_t width;
        std::uint32_t value;
    };
    const std::size_t info = sizeof(fanotify_event_metadata);
    const std::vector<Lie> lies = {
        {"event shorter than its header", 0, 4, 0x17},
        {"event of no length", 0, 4, 0x0},
        {"event longer than what was read", 0, 4, 0xc8},
        {"another version", 4, 1, 0x9},
        {"header of no length", 6, 2, 0x0},
        {"header longer than the event", 6, 2, 0xffff},
        {"information of no length", info + 2, 2, 0x0},
        {"information longer than the event", info + 2, 2, 0xffff},
        {"information without room for a handle", info + 2, 2, 0xc},
        {"handle longer than its record", info + 12, 4, 0x3c},
        {"handle longer than any", info + 12, 4, 0xffffffff},
    };
    for (const Lie& lie : lies) {
        std::string bytes = whole;
        bytes.replace(lie.offset, lie.width, structureBytes(lie.value), 0, lie.width);
        ByteView rest = bytesOf(bytes);
        EXPECT_FALSE(takeFanotifyRecord(rest)) << lie.name;
        EXPECT_EQ(rest.size(), bytes.size()) << lie.name;
    }
}

TEST(FanotifyRecordsTest, ALongHandleIsTakenAndOneByteMoreIsRefused) {
    for (std::size_t length : {std::size_t{MAX_HANDLE_SZ}, std::size_t{MAX_HANDLE_SZ} + 1}) {
        const std::string bytes =
            fanotifyRecord(FAN_CREATE, infoRecord(FAN_EVENT_INFO_TYPE_DFID_NAME, 1, std::string(length, 'h'), "name"));
        ByteView rest = bytesOf(bytes);
        EXPECT_EQ(takeFanotifyRecord(rest).has_value(), length == MAX_HANDLE_SZ);
    }
}

// Whatever the bytes are, taking ends, and nothing outside them is read (which the address sanitizer sees).
TEST(RecordsTest, DamagedBytesAreHarmless) {
    std::mt19937 random(1);  // NOLINT: the same bytes every time
    const std::string whole =
        fanotifyRecord(FAN_CREATE, infoRecord(FAN_EVENT_INFO_TYPE_DFID_NAME, 1, "handle01", "name")) +
        inotifyRecord(3, IN_CREATE, "name") +
        fanotifyRecord(FAN_MODIFY, infoRecord(FAN_EVENT_INFO_TYPE_DFID_NAME, 1, "handle01", "."));
    for (int round = 0; round < 20'000; ++round) {
        std::string bytes = whole.substr(0, random() % (whole.size() + 1));
        for (unsigned changes = random() % 8; changes > 0 && !bytes.empty(); --changes)
            bytes[random() % bytes.size()] = static_cast<char>(random() % 4 == 0 ? 0xff : random() % 32);
        bytes.shrink_to_fit();
        for (ByteView rest = bytesOf(bytes); takeInotifyRecord(rest);) EXPECT_LE(rest.size(), bytes.size());
        for (ByteView rest = bytesOf(bytes); auto record = takeFanotifyRecord(rest);) {
            EXPECT_LE(record->directory.size(), std::size_t{MAX_HANDLE_SZ} + sizeof(int));
            EXPECT_LE(record->name.size(), bytes.size());
        }
    }
}

}  // namespace
}  // namespace tarnwell::watch
