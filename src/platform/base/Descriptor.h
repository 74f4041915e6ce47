#pragma once

#include <utility>

namespace tarnwell {

/// Owns one open file descriptor and closes it, or stands for one that somebody else owns. -1 when it holds none. Every
/// descriptor is opened close-on-exec.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    /// One that is left open; its owner must outlive this.
    static Descriptor borrowed(int fd) {
        Descriptor descriptor(fd);
        descriptor.isOwner_ = false;
        return descriptor;
    }
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)), isOwner_(other.isOwner_) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor();

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    /// Nobody closes it any more; only of an owned one.
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_ = -1;
    bool isOwner_ = true;
};

}  // namespace tarnwell
