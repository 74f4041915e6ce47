#include "platform/files/FileKinds.h"

#include <sys/stat.h>

namespace tarnwell::files {

FileKind kindOf(std::uint32_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return FileKind::regular;
        case S_IFDIR:
            return FileKind::directory;
        case S_IFLNK:
            return FileKind::symbolicLink;
        case S_IFIFO:
            return FileKind::fifo;
        case S_IFSOCK:
            return FileKind::socket;
        case S_IFBLK:
        case S_IFCHR:
            return FileKind::device;
        default:
            return FileKind::other;
    }
}

}  // namespace tarnwell::files
