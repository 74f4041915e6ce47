#include "applibraries/AppLibraryCacheFile.h"
#include "fuzz/Fuzz.h"

using namespace tarnwell;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto list = applibraries::decodeAppLibraryList({data, size});
    if (!list) return 0;
    const Bytes encoded = applibraries::encodeAppLibraryList(*list);
    const auto again = applibraries::decodeAppLibraryList(encoded);
    TARNWELL_CHECK(again && *again == *list);
    return 0;
}
