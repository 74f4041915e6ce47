#include "platform/store/PageChecksums.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <vector>

namespace tarnwell::store {
namespace {

constexpr int kChecksumBytes = 8;
/// Of the database header (https://sqlite.org/fileformat2.html): where the size of a page and what is left free at its
/// end stand.
constexpr std::size_t kPageSizeAt = 16, kReservedAt = 20, kReadForBoth = 24;

using Checksum = std::array<std::uint8_t, kChecksumBytes>;

/// The two sums that SQLite's log has, which tell words that changed places, begun with the page's number.
Checksum checksumOf(std::span<const std::uint8_t> page, std::uint64_t number) {
    std::uint32_t first = static_cast<std::uint32_t>(number) + 1, second = static_cast<std::uint32_t>(number >> 32);
    const std::size_t end = page.size() - kChecksumBytes;
    for (std::size_t i = 0; i + 8 <= end; i += 8) {
        std::array<std::uint32_t, 2> words;
        std::memcpy(words.data(), page.data() + i, sizeof words);
        first += words[0] + second;
        second += words[1] + first;
    }
    Checksum checksum;
    for (std::size_t i = 0; i < 4; ++i) {
        checksum.at(i) = static_cast<std::uint8_t>(first >> (8 * i));
        checksum.at(4 + i) = static_cast<std::uint8_t>(second >> (8 * i));
    }
    return checksum;
}

/// True for one that was given room in the file and never written.
bool isBlank(std::span<const std::uint8_t> page) {
    return std::ranges::all_of(page, [](std::uint8_t byte) { return byte == 0; });
}

/// One open file. SQLite gives the memory that it lies in.
struct CheckedFile {
    sqlite3_file base{};                   // first, as SQLite sees nothing else
    std::unique_ptr<std::uint8_t[]> room;  ///< of the system's file
    bool isDatabase = false;
    std::size_t pageSize = 0;
    bool hasChecksums = false;
    std::vector<std::uint8_t> page;  ///< as it is written

    sqlite3_file* real() const { return reinterpret_cast<sqlite3_file*>(room.get()); }
    const sqlite3_io_methods& methods() const { return *real()->pMethods; }

    void learn(std::span<const std::uint8_t> header) {
        const std::size_t size = static_cast<std::size_t>(header[kPageSizeAt]) << 8 | header[kPageSizeAt + 1];
        pageSize = size == 1 ? 65'536 : size;
        hasChecksums = header[kReservedAt] == kChecksumBytes && pageSize >= 512;
    }
    bool isPage(std::size_t size, sqlite3_int64 offset) const {
        return isDatabase && hasChecksums && size == pageSize && static_cast<std::size_t>(offset) % pageSize == 0;
    }
    std::uint64_t numberOf(sqlite3_int64 offset) const { return static_cast<std::uint64_t>(offset) / pageSize; }
};

CheckedFile& checked(sqlite3_file* file) { return *reinterpret_cast<CheckedFile*>(file); }

int closeFile(sqlite3_file* file) {
    CheckedFile& it = checked(file);
    const int code = it.methods().xClose(it.real());
    it.~CheckedFile();
    return code;
}

int readFile(sqlite3_file* file, void* into, int size, sqlite3_int64 offset) {
    CheckedFile& it = checked(file);
    const int code = it.methods().xRead(it.real(), into, size, offset);
    if (code != SQLITE_OK) return code;
    const std::span read(static_cast<const std::uint8_t*>(into), static_cast<std::size_t>(size));
    if (it.isDatabase && offset == 0 && read.size() >= kReadForBoth) it.learn(read);
    if (!it.isPage(read.size(), offset)) return SQLITE_OK;
    const Checksum wanted = checksumOf(read, it.numberOf(offset));
    if (std::ranges::equal(read.last(kChecksumBytes), wanted) || isBlank(read)) return SQLITE_OK;
    return SQLITE_IOERR_DATA;
}

int writeFile(sqlite3_file* file, const void* from, int size, sqlite3_int64 offset) {
    CheckedFile& it = checked(file);
    const std::span written(static_cast<const std::uint8_t*>(from), static_cast<std::size_t>(size));
    if (it.isDatabase && offset == 0 && written.size() >= kReadForBoth) it.learn(written);
    if (!it.isPage(written.size(), offset)) return it.methods().xWrite(it.real(), from, size, offset);
    try {
        it.page.assign(written.begin(), written.end());
    } catch (const std::bad_alloc&) {
        return SQLITE_NOMEM;
    }
    std::ranges::copy(checksumOf(written, it.numberOf(offset)), it.page.end() - kChecksumBytes);
    return it.methods().xWrite(it.real(), it.page.data(), size, offset);
}

int truncateFile(sqlite3_file* file, sqlite3_int64 size) {
    return checked(file).methods().xTruncate(checked(file).real(), size);
}
int syncFile(sqlite3_file* file, int flags) { return checked(file).methods().xSync(checked(file).real(), flags); }
int sizeOfFile(sqlite3_file* file, sqlite3_int64* size) {
    return checked(file).methods().xFileSize(checked(file).real(), size);
}
int lockFile(sqlite3_file* file, int level) { return checked(file).methods().xLock(checked(file).real(), level); }
int unlockFile(sqlite3_file* file, int level) { return checked(file).methods().xUnlock(checked(file).real(), level); }
int isReserved(sqlite3_file* file, int* is) {
    return checked(file).methods().xCheckReservedLock(checked(file).real(), is);
}
int controlFile(sqlite3_file* file, int what, void* argument) {
    return checked(file).methods().xFileControl(checked(file).real(), what, argument);
}
int sectorSize(sqlite3_file* file) { return checked(file).methods().xSectorSize(checked(file).real()); }
int characteristics(sqlite3_file* file) { return checked(file).methods().xDeviceCharacteristics(checked(file).real()); }

/// Of the first version: later ones add shared memory and mapped pages, which nothing would check.
const sqlite3_io_methods kMethods = [] {
    sqlite3_io_methods methods{};
    methods.iVersion = 1;
    methods.xClose = closeFile;
    methods.xRead = readFile;
    methods.xWrite = writeFile;
    methods.xTruncate = truncateFile;
    methods.xSync = syncFile;
    methods.xFileSize = sizeOfFile;
    methods.xLock = lockFile;
    methods.xUnlock = unlockFile;
    methods.xCheckReservedLock = isReserved;
    methods.xFileControl = controlFile;
    methods.xSectorSize = sectorSize;
    methods.xDeviceCharacteristics = characteristics;
    return methods;
}();

sqlite3_vfs* system() { return sqlite3_vfs_find(nullptr); }

int openFile(sqlite3_vfs*, sqlite3_filename path, sqlite3_file* file, int flags, int* outFlags) {
    sqlite3_vfs* real = system();
    file->pMethods = nullptr;
    std::unique_ptr<std::uint8_t[]> room(new (std::nothrow) std::uint8_t[static_cast<std::size_t>(real->szOsFile)]());
    if (!room) return SQLITE_NOMEM;
    auto* its = reinterpret_cast<sqlite3_file*>(room.get());
    if (const int code = real->xOpen(real, path, its, flags, outFlags); code != SQLITE_OK) {
        if (its->pMethods != nullptr) its->pMethods->xClose(its);
        return code;
    }
    auto* opened = new (file) CheckedFile;
    opened->room = std::move(room);
    opened->isDatabase = (flags & SQLITE_OPEN_MAIN_DB) != 0;
    opened->base.pMethods = &kMethods;
    return SQLITE_OK;
}

int removeFile(sqlite3_vfs*, const char* path, int syncFolder) { return system()->xDelete(system(), path, syncFolder); }
int accessFile(sqlite3_vfs*, const char* path, int flags, int* is) {
    return system()->xAccess(system(), path, flags, is);
}
int fullPath(sqlite3_vfs*, const char* path, int size, char* into) {
    return system()->xFullPathname(system(), path, size, into);
}
int randomness(sqlite3_vfs*, int size, char* into) { return system()->xRandomness(system(), size, into); }
int sleepFor(sqlite3_vfs*, int microseconds) { return system()->xSleep(system(), microseconds); }
int currentTime(sqlite3_vfs*, double* time) { return system()->xCurrentTime(system(), time); }
int lastError(sqlite3_vfs*, int size, char* into) { return system()->xGetLastError(system(), size, into); }

sqlite3_vfs makeLayer() {
    sqlite3_vfs layer{};
    layer.iVersion = 1;
    layer.szOsFile = sizeof(CheckedFile);
    layer.mxPathname = system()->mxPathname;
    layer.zName = "tarnwell-checksums";
    layer.xOpen = openFile;
    layer.xDelete = removeFile;
    layer.xAccess = accessFile;
    layer.xFullPathname = fullPath;
    layer.xRandomness = randomness;
    layer.xSleep = sleepFor;
    layer.xCurrentTime = currentTime;
    layer.xGetLastError = lastError;
    return layer;
}

}  // namespace

const char* checksumLayer() {
    sqlite3_initialize();
    static sqlite3_vfs layer = [] {
        static_assert(offsetof(CheckedFile, base) == 0);
        return makeLayer();
    }();
    static const int registered = sqlite3_vfs_register(&layer, 0);
    (void)registered;
    return layer.zName;
}

void reserveChecksums(sqlite3* database) {
    int bytes = kChecksumBytes;
    sqlite3_file_control(database, "main", SQLITE_FCNTL_RESERVE_BYTES, &bytes);
}

}  // namespace tarnwell::store
