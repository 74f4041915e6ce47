#include "platform/archive/PropertyList.h"

#include "fuzz/Fuzz.h"

using namespace tarnwell;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto value = archive::readBinaryPropertyList({data, size});
    if (!value) return 0;
    const Bytes written = archive::writeBinaryPropertyList(*value);
    const auto again = archive::readBinaryPropertyList(written);
    TARNWELL_CHECK(again && *again == *value);
    TARNWELL_CHECK(archive::writeBinaryPropertyList(*again) == written);
    return 0;
}
