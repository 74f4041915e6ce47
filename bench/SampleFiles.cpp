#include "bench/SampleFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <string_view>

#include "items/LocalItem.h"
#include "platform/archive/KeyedArchive.h"
#include "platform/filesystem/Beneath.h"
#include "platform/mime/TypeDatabase.h"

namespace tarnwell::bench {

namespace {

/// The index trusts change times that are older than 25 ms of a clock that ticks every 10 ms at most.
constexpr std::chrono::milliseconds kTrustedAge{50};
/// The registry trusts the times of what it parsed once they are two seconds old.
constexpr std::chrono::milliseconds kTrustedAgeOfParsedFiles{2500};

void waitFor(std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) ::usleep(1000);
}

struct NamedValue {
    std::string name;
    std::string value;
};

std::array<NamedValue, 3> sampleAttributes() {
    using archive::ArchivedObject;
    const auto text = [](const Bytes& bytes) { return std::string(textOf(bytes)); };
    const archive::ArchivedArray tags{ArchivedObject{std::string("Work")}, ArchivedObject{std::string("Important")}};
    const Date used = Date(std::chrono::seconds(1'700'000'000));
    return {{{items::LocalItem::xattrTagDataName, text(archive::archiveRoot({tags}))},
             {items::LocalItem::xattrFavoriteRankName, text(archive::archiveRoot({archive::Integer::fromUnsigned(7)}))},
             {items::LocalItem::xattrLastUsedDateName, text(archive::archiveRoot({used}))}}};
}

std::unexpected<std::string> failedAt(const std::string& path) {
    const int code = errno;
    return std::unexpected(path + ": " + tarnwell::describe(posixError(code)));
}

bool writeAll(int file, std::string_view content) {
    return ::write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size());
}

}  // namespace

Outcome<void> makeFolder(const std::string& path) {
    if (::mkdir(path.c_str(), 0755) != 0) return failedAt(path);
    return {};
}

Outcome<std::uint64_t> makeFiles(const std::string& path, std::size_t count, Attributes attributes, std::size_t first) {
    if (auto made = makeFolder(path); !made) return std::unexpected(made.error());
    const Descriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.valid()) return failedAt(path);
    const auto values = sampleAttributes();
    std::uint64_t set = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string name = sampleName(first + i);
        const Descriptor file(::openat(directory.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
        if (!file.valid()) return failedAt(path + "/" + name);
        // An empty file's type is settled without a look at its content.
        if (name.find('.') == std::string::npos && !writeAll(file.get(), "#!/bin/sh\necho sample\n")) {
            return failedAt(path + "/" + name);
        }
        if (attributes == Attributes::none || i % 10 != 0) continue;
        for (const auto& [attribute, value] : values) {
            auto done = filesystem::setAttributeOf(file.get(), attribute, bytesOf(value));
            if (!done) return std::unexpected(path + ": " + tarnwell::describe(done.error()));
            ++set;
        }
    }
    return set;
}

bool changeFile(const std::string& path) {
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    return file.valid() && ::write(file.get(), "x", 1) == 1;
}

void waitUntilTrusted() { waitFor(kTrustedAge); }

void waitUntilParsedFilesAreTrusted() { waitFor(kTrustedAgeOfParsedFiles); }

std::string sampleName(std::size_t number) {
    static constexpr std::array<std::string_view, 8> kEndings = {".pdf", ".txt", ".jpg", ".odt",
                                                                 ".png", ".mp3", ".svg", ".json"};
    std::string name = "Sample " + std::to_string(number);
    if (number % 100 != 99) name += kEndings[number % kEndings.size()];
    return name;
}

std::uint64_t undeclaredNames(std::size_t count) {
    const auto types = mime::TypeDatabase::create();
    std::uint64_t undeclared = 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (types->typeForName(sampleName(i)).empty()) ++undeclared;
    }
    return undeclared;
}

}  // namespace tarnwell::bench
