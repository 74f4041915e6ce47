#include "platform/watch/Source.h"

#include <cerrno>

namespace tarnwell::watch {

Refusal refusalOf(const Error& error) {
    switch (error.code) {
        case ENOSPC:
        case EMFILE:
        case ENFILE:
            return Refusal::limit;
        case EOPNOTSUPP:  // no handles
        case ENODEV:      // the file system has no identity
        case EXDEV:       // its identity is not the one of its root
        case EOVERFLOW:   // its handles are too long
        case EINVAL:      // the kernel knows the request only in part
        case ENOSYS:
        case EPERM:
            return Refusal::unsupported;
        default:
            return Refusal::final;
    }
}

}  // namespace tarnwell::watch
