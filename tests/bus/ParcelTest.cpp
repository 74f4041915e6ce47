#include "bus/wire/Parcel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "bus/wire/SealedFile.h"
#include "tests/bus/RawClient.h"

namespace tarnwell::bus {
namespace {

/// What a message holds, with nobody to send it to.
class ParcelTest : public BusTest {
protected:
    void SetUp() override {
        BusTest::SetUp();
        raw_ = std::make_unique<RawClient>(bus_->address());
    }
    void TearDown() override {
        raw_.reset();
        BusTest::TearDown();
    }

    struct Read {
        Bytes bytes;
        int error;
        std::size_t descriptors;
    };
    Read readBack(const std::function<void(Writer&)>& write) {
        sd_bus_message* message = raw_->newCall("Anything");
        Writer writer(message);
        write(writer);
        EXPECT_EQ(writer.error(), 0);
        EXPECT_GE(sd_bus_message_seal(message, 1, 0), 0);
        Reader reader(message);
        Read read{Parcel::read(reader), reader.error(), writer.descriptorsWritten()};
        sd_bus_message_unref(message);
        return read;
    }
    static Bytes bytes(std::size_t count) {
        Bytes bytes(count);
        for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<std::uint8_t>(i * 7);
        return bytes;
    }
    /// Empty bytes, and these files.
    Read readFiles(const std::vector<Descriptor>& files) {
        return readBack([&](Writer& writer) {
            writer.bytes(Bytes{}).open('a', "h");
            for (const auto& file : files) writer.descriptor(file);
            writer.close();
        });
    }

    std::unique_ptr<RawClient> raw_;
};

TEST_F(ParcelTest, FewBytesAreInTheMessageAndManyInAFile) {
    for (const std::size_t count :
         {std::size_t{0}, std::size_t{1}, Parcel::kMostInMessage, Parcel::kMostInMessage + 1, std::size_t{1'000'000}}) {
        const Parcel parcel(bytes(count));
        for (int time = 0; time < 2; ++time) {  // the same parcel goes to many
            const Read read = readBack([&](Writer& writer) { parcel.write(writer); });
            EXPECT_EQ(read.error, 0);
            EXPECT_EQ(read.bytes, bytes(count)) << count;
            EXPECT_EQ(read.descriptors, count > Parcel::kMostInMessage ? 1U : 0U);
        }
    }
}

TEST_F(ParcelTest, NobodyCanChangeTheFile) {
    const auto file = sealedFile("tarnwell-test", bytes(10));
    ASSERT_TRUE(file);
    const std::uint8_t byte = 1;
    EXPECT_EQ(::pwrite(file->get(), &byte, 1, 0), -1);
    EXPECT_EQ(::ftruncate(file->get(), 5), -1);
    EXPECT_EQ(::ftruncate(file->get(), 50), -1);
    EXPECT_EQ(::fcntl(file->get(), F_ADD_SEALS, F_SEAL_SEAL), -1);
    EXPECT_EQ(*contentsOfSealedFile(*file, 10), bytes(10));
    EXPECT_TRUE(contentsOfSealedFile(*file, 9).error().is(ErrorDomain::posix, EFBIG));
}

TEST_F(ParcelTest, AFileThatIsNotSealedIsNone) {
    std::vector<Descriptor> files;
    files.emplace_back(::memfd_create("tarnwell-test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(::ftruncate(files[0].get(), 100), 0);
    EXPECT_EQ(readFiles(files).error, -EBADMSG);
    files.clear();
    files.emplace_back(::open("/dev/zero", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(readFiles(files).error, -EBADMSG);
}

TEST_F(ParcelTest, AFileThatIsTooLongIsNone) {
    constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
    std::vector<Descriptor> files;
    files.emplace_back(::memfd_create("tarnwell-test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(::ftruncate(files[0].get(), off_t{1} << 40), 0);  // sparse: it takes no memory
    ASSERT_EQ(::fcntl(files[0].get(), F_ADD_SEALS, kSeals), 0);
    EXPECT_EQ(readFiles(files).error, -EBADMSG);
}

TEST_F(ParcelTest, TwoFilesAreNone) {
    std::vector<Descriptor> files;
    for (int i = 0; i < 2; ++i) files.push_back(*sealedFile("tarnwell-test", bytes(10)));
    EXPECT_EQ(readFiles(files).error, -EBADMSG);
}

/// The file that an answer of ChangesPacked carries, by what tells it from all others.
ino_t fileInAnswer(const RawClient& client) {
    sd_bus_message* call = client.newCall("ChangesPacked");
    EXPECT_GE(sd_bus_message_append(call, "say", "root", 0), 0);
    sd_bus_message* answer = nullptr;
    EXPECT_EQ(client.call(call, &answer), "");
    Reader reader(answer);
    EXPECT_TRUE(reader.bytes(kLongestPacked).empty());
    reader.enter('a', "h");
    const Descriptor file = reader.descriptor();
    EXPECT_EQ(reader.error(), 0);
    struct stat status{};
    EXPECT_EQ(::fstat(file.get(), &status), 0);
    sd_bus_message_unref(answer);
    return status.st_ino;
}

TEST_F(ParcelTest, ClientsThatAreToldTheSameGetTheSameFile) {
    const std::vector<session::Change> changes(2000, {"did=123456789", std::nullopt});
    session_->batch = session::ChangeBatch{changes, {1}, true};
    const RawClient other(bus_->address());
    const ino_t first = fileInAnswer(*raw_);
    EXPECT_EQ(fileInAnswer(other), first);
    session_->batch = session::ChangeBatch{changes, {1}, true};
    EXPECT_NE(fileInAnswer(other), first);
}

}  // namespace
}  // namespace tarnwell::bus
