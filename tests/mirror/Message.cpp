#include "tests/mirror/Message.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace tarnwell::mirror {
namespace {

bool writeAll(int descriptor, const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t written = ::write(descriptor, bytes.data() + done, bytes.size() - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        done += static_cast<std::size_t>(written);
    }
    return true;
}

bool readAll(int descriptor, char* bytes, std::size_t size) {
    for (std::size_t done = 0; done < size;) {
        const ssize_t got = ::read(descriptor, bytes + done, size - done);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        done += static_cast<std::size_t>(got);
    }
    return true;
}

void append(std::string& bytes, std::uint64_t number) {
    bytes.append(reinterpret_cast<const char*>(&number), sizeof number);
}

std::optional<std::uint64_t> readNumber(int descriptor) {
    std::uint64_t number = 0;
    if (!readAll(descriptor, reinterpret_cast<char*>(&number), sizeof number)) return std::nullopt;
    return number;
}

}  // namespace

bool send(int descriptor, const Message& message) {
    std::string bytes;
    append(bytes, message.size());
    for (const std::string& text : message) {
        append(bytes, text.size());
        bytes += text;
    }
    return writeAll(descriptor, bytes);
}

std::optional<Message> receive(int descriptor) {
    const auto count = readNumber(descriptor);
    if (!count) return std::nullopt;
    Message message(*count);
    for (std::string& text : message) {
        const auto size = readNumber(descriptor);
        if (!size) return std::nullopt;
        text.resize(*size);
        if (!readAll(descriptor, text.data(), text.size())) return std::nullopt;
    }
    return message;
}

}  // namespace tarnwell::mirror
