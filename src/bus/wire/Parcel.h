#pragma once

#include "bus/wire/Message.h"

namespace tarnwell::bus {

/// Packed bytes on their way to a client (ay, ah): in the message itself, or, where they are many, in a sealed file
/// that the message carries. Any thread; writing and reading are the connection's thread's.
class Parcel {
public:
    /// Above so many bytes a file costs less than the four times that a message is copied on its way.
    static constexpr std::size_t kMostInMessage = 32 * 1024;

    /// Where no file can be made the bytes stay in the message.
    explicit Parcel(Bytes packed);

    void write(Writer& writer) const;
    /// What a parcel held. A file that is none of the service's kind is a failure of the reader.
    static Bytes read(Reader& reader);

private:
    Bytes inMessage_;
    Descriptor file_;
};

}  // namespace tarnwell::bus
