#include "platform/base/Descriptor.h"

#include <unistd.h>

namespace tarnwell {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    // Through a temporary, which closes what this one held and leaves self-assignment harmless.
    Descriptor taken(std::move(other));
    std::swap(fd_, taken.fd_);
    std::swap(isOwner_, taken.isOwner_);
    return *this;
}

Descriptor::~Descriptor() {
    // No retry on EINTR: Linux has let go of the number by then, and another thread may already own it.
    if (fd_ >= 0 && isOwner_) ::close(fd_);
}

}  // namespace tarnwell
