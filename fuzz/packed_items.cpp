#include <cerrno>

#include "bus/wire/Packed.h"
#include "fuzz/Fuzz.h"

using namespace tarnwell;

/// Whatever is said to be a service's answer: items, or one error.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const ByteView bytes(data, size);
    if (const auto items = bus::unpackItems(bytes)) {
        const auto again = bus::unpackItems(bus::packItems(*items));
        TARNWELL_CHECK(again && *again == *items);
    } else {
        TARNWELL_CHECK(items.error().is(ErrorDomain::posix, EBADMSG));
    }
    if (const auto changes = bus::unpackChanges(bytes)) {
        const auto again = bus::unpackChanges(bus::packChanges(*changes));
        TARNWELL_CHECK(again && again->size() == changes->size());
        for (std::size_t i = 0; i < changes->size(); ++i) {
            TARNWELL_CHECK((*again)[i].identifier == (*changes)[i].identifier);
            TARNWELL_CHECK((*again)[i].item == (*changes)[i].item);
        }
    } else {
        TARNWELL_CHECK(changes.error().is(ErrorDomain::posix, EBADMSG));
    }
    return 0;
}
