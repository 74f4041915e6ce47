#include "tests/store/RecordingDisk.h"

#include <sqlite3.h>

#include <algorithm>
#include <new>

namespace tarnwell::store {
namespace {

constexpr std::size_t kSector = 512;

struct Outer {
    RecordingDisk* disk;
    sqlite3_vfs* real;
};

/// A file of the recording layer; the real one lies behind it in the same block, as SQLite gives room for both.
struct File {
    sqlite3_file base;
    RecordingDisk* disk;
    std::string* path;
    sqlite3_file* real;
};

File& fileOf(sqlite3_file* file) { return *reinterpret_cast<File*>(file); }
sqlite3_file* realOf(sqlite3_file* file) { return fileOf(file).real; }

int closeFile(sqlite3_file* file) {
    const int code = realOf(file)->pMethods != nullptr ? realOf(file)->pMethods->xClose(realOf(file)) : SQLITE_OK;
    delete fileOf(file).path;
    return code;
}
int readFile(sqlite3_file* file, void* into, int size, sqlite3_int64 offset) {
    return realOf(file)->pMethods->xRead(realOf(file), into, size, offset);
}
int writeFile(sqlite3_file* file, const void* bytes, int size, sqlite3_int64 offset) {
    const int code = realOf(file)->pMethods->xWrite(realOf(file), bytes, size, offset);
    if (code == SQLITE_OK) {
        fileOf(file).disk->record({RecordingDisk::Step::Kind::write, *fileOf(file).path,
                                   static_cast<std::uint64_t>(offset),
                                   std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(size))});
    }
    return code;
}
int truncateFile(sqlite3_file* file, sqlite3_int64 size) {
    const int code = realOf(file)->pMethods->xTruncate(realOf(file), size);
    if (code == SQLITE_OK) {
        fileOf(file).disk->record(
            {RecordingDisk::Step::Kind::truncate, *fileOf(file).path, static_cast<std::uint64_t>(size), {}});
    }
    return code;
}
int syncFile(sqlite3_file* file, int flags) {
    const int code = realOf(file)->pMethods->xSync(realOf(file), flags);
    if (code == SQLITE_OK) fileOf(file).disk->record({RecordingDisk::Step::Kind::sync, *fileOf(file).path, 0, {}});
    return code;
}
int fileSize(sqlite3_file* file, sqlite3_int64* size) { return realOf(file)->pMethods->xFileSize(realOf(file), size); }
int lockFile(sqlite3_file* file, int level) { return realOf(file)->pMethods->xLock(realOf(file), level); }
int unlockFile(sqlite3_file* file, int level) { return realOf(file)->pMethods->xUnlock(realOf(file), level); }
int isReserved(sqlite3_file* file, int* is) { return realOf(file)->pMethods->xCheckReservedLock(realOf(file), is); }
int control(sqlite3_file* file, int what, void* argument) {
    return realOf(file)->pMethods->xFileControl(realOf(file), what, argument);
}
int sectorSize(sqlite3_file*) { return kSector; }
int characteristics(sqlite3_file*) { return 0; }

const sqlite3_io_methods kMethods = {
    1,       closeFile,  readFile,        writeFile, truncateFile, syncFile, fileSize, lockFile, unlockFile, isReserved,
    control, sectorSize, characteristics, nullptr,   nullptr,      nullptr,  nullptr,  nullptr,  nullptr};

int openFile(sqlite3_vfs* vfs, const char* path, sqlite3_file* file, int flags, int* outFlags) {
    const auto* outer = static_cast<const Outer*>(vfs->pAppData);
    auto* opened = new (file) File{};
    opened->real = reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(file) + sizeof(File));
    opened->disk = outer->disk;
    const int code = outer->real->xOpen(outer->real, path, opened->real, flags, outFlags);
    if (code != SQLITE_OK) return code;
    opened->path = new std::string(path != nullptr ? path : "");
    opened->base.pMethods = &kMethods;
    return SQLITE_OK;
}
int removeFile(sqlite3_vfs* vfs, const char* path, int syncFolder) {
    const auto* outer = static_cast<const Outer*>(vfs->pAppData);
    const int code = outer->real->xDelete(outer->real, path, syncFolder);
    if (code == SQLITE_OK) outer->disk->record({RecordingDisk::Step::Kind::remove, path, 0, {}});
    return code;
}

void apply(std::string& content, const RecordingDisk::Step& step) {
    if (step.kind == RecordingDisk::Step::Kind::truncate) return content.resize(step.offset, '\0');
    content.resize(std::max<std::size_t>(content.size(), step.offset + step.bytes.size()), '\0');
    std::ranges::copy(step.bytes, content.begin() + static_cast<std::ptrdiff_t>(step.offset));
}

}  // namespace

RecordingDisk::RecordingDisk() : vfs_(std::make_unique<sqlite3_vfs>(*sqlite3_vfs_find(nullptr))) {
    sqlite3_vfs* real = sqlite3_vfs_find(nullptr);
    vfs_->zName = "recording";
    vfs_->szOsFile = static_cast<int>(sizeof(File)) + real->szOsFile;
    vfs_->pAppData = new Outer{this, real};
    vfs_->xOpen = openFile;
    vfs_->xDelete = removeFile;
    sqlite3_vfs_register(vfs_.get(), 1);
}

RecordingDisk::~RecordingDisk() {
    const auto* outer = static_cast<const Outer*>(vfs_->pAppData);
    sqlite3_vfs_unregister(vfs_.get());
    sqlite3_vfs_register(outer->real, 1);
    delete outer;
}

void RecordingDisk::record(Step step) {
    const std::lock_guard lock(mutex_);
    steps_.push_back(std::move(step));
}

std::size_t RecordingDisk::steps() const {
    const std::lock_guard lock(mutex_);
    return steps_.size();
}

std::map<std::string, std::string> RecordingDisk::afterPowerCut(std::size_t steps, std::mt19937_64& random) const {
    const std::lock_guard lock(mutex_);
    std::map<std::string, std::string> durable;
    std::map<std::string, std::vector<const Step*>> open;  // since the file's last synchronization
    for (std::size_t i = 0; i < steps; ++i) {
        const Step& step = steps_[i];
        auto& pending = open[step.path];
        switch (step.kind) {
            case Step::Kind::write:
            case Step::Kind::truncate:
                pending.push_back(&step);
                break;
            case Step::Kind::sync:
                for (const Step* each : pending) apply(durable[step.path], *each);
                pending.clear();
                break;
            case Step::Kind::remove:
                durable.erase(step.path);
                pending.clear();
        }
    }
    // Of what was not synchronized: all, a beginning, or here and there a sector.
    for (auto& [path, pending] : open) {
        const auto manner = random() % 4;
        const std::size_t until = manner == 0 ? pending.size() : pending.empty() ? 0 : random() % (pending.size() + 1);
        for (std::size_t i = 0; i < pending.size(); ++i) {
            const Step& step = *pending[i];
            if (manner < 2 && i >= until) break;
            if (manner < 2 || step.kind == Step::Kind::truncate) {
                if (manner < 2 || random() % 2 == 0) apply(durable[path], step);
                continue;
            }
            for (std::size_t at = 0; at < step.bytes.size(); at += kSector) {
                if (random() % 3 == 0) continue;
                apply(durable[path], {step.kind, path, step.offset + at, step.bytes.substr(at, kSector)});
            }
        }
    }
    return durable;
}

}  // namespace tarnwell::store
