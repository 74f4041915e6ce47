#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Descriptor.h"
#include "platform/base/Ids.h"

struct sd_bus_message;

/// One D-Bus message, written and read value by value (sd_bus_message_append and sd_bus_message_read of libsystemd).
/// Types are D-Bus's letters. Only for the thread that the connection belongs to.
namespace tarnwell::bus {

/// Whether a D-Bus string can hold the bytes: UTF-8 without NUL.
bool isText(std::string_view value);
/// What a D-Bus string can hold of the bytes: what is no UTF-8, and NUL, is replaced.
std::string displayable(std::string_view value);

/// Appends values to a message, which it borrows. After a failure nothing more is appended, and `error` says why.
class Writer {
public:
    explicit Writer(sd_bus_message* message) : message_(message) {}

    Writer& boolean(bool value);
    Writer& uint16(std::uint16_t value);
    Writer& uint32(std::uint32_t value);
    Writer& uint64(std::uint64_t value);
    Writer& int64(std::int64_t value);
    /// As `displayable` has it.
    Writer& string(std::string_view value);
    Writer& objectPath(const std::string& value);
    Writer& bytes(ByteView value);
    Writer& bytes(std::string_view value) { return bytes(bytesOf(value)); }
    /// The message gets a duplicate.
    Writer& descriptor(const Descriptor& value);

    /// 'a' array, 'v' variant, 'r' struct, 'e' entry of a dictionary, each with what it contains.
    Writer& open(char type, const char* contents);
    Writer& close();

    /// A negative errno, or 0.
    int error() const { return error_; }
    /// What was written, roughly.
    std::size_t bytesWritten() const { return bytes_; }
    std::size_t descriptorsWritten() const { return descriptors_; }

private:
    template <typename T>
    Writer& append(char type, const T& value);
    void take(int outcome);
    sd_bus_message* message_;
    int error_ = 0;
    std::size_t bytes_ = 0, descriptors_ = 0;
};

/// Reads values in their order. After a failure every value is empty, and `error` says why; an array or text that is
/// longer than the bounds of Names.h is such a failure, whatever the message says of its length.
class Reader {
public:
    explicit Reader(sd_bus_message* message) : message_(message) {}
    /// Reads so many bytes at most, roughly. What is passed over counts more, since it takes time and gives nothing.
    Reader(sd_bus_message* message, std::size_t most) : message_(message), most_(most) {}

    bool boolean();
    std::uint16_t uint16();
    std::uint32_t uint32();
    std::uint64_t uint64();
    std::int64_t int64();
    std::string string();
    std::string objectPath();
    Bytes bytes(std::size_t longest);
    std::string text();  ///< an array of bytes
    /// aay of at most kMostPerRequest.
    std::vector<std::string> texts();
    /// A duplicate of the message's.
    Descriptor descriptor();

    void enter(char type, const char* contents);
    void exit();
    /// True when the container that was entered holds another value.
    bool more();
    /// The signature of what the variant that comes next holds.
    std::string_view variantContents();
    /// Passes over the value that comes next.
    void skip();
    std::size_t bytesRead() const { return read_; }

    void fail(int error);
    /// A negative errno, or 0.
    int error() const { return error_; }

private:
    template <typename T>
    T basic(char type);
    std::string characters(char type);
    void take(int outcome);
    void spend(std::size_t bytes);
    sd_bus_message* message_;
    const std::size_t most_ = std::numeric_limits<std::size_t>::max();
    std::size_t read_ = 0;
    int error_ = 0;
};

}  // namespace tarnwell::bus
