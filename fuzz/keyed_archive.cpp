#include "platform/archive/KeyedArchive.h"

#include "fuzz/Fuzz.h"

using namespace tarnwell;

namespace {

/// Each typed reader takes the bytes exactly if the root is of its class.
void checkTypedReaders(ByteView bytes, const archive::ArchivedObject& root) {
    const bool isNumber = root.as<archive::Integer>() || root.as<double>();
    bool isListOfStrings = false;
    if (const auto* array = root.as<archive::ArchivedArray>()) {
        isListOfStrings = true;
        for (const auto& element : *array) isListOfStrings = isListOfStrings && element.as<std::string>();
    }
    TARNWELL_CHECK(archive::unarchiveDate(bytes).has_value() == (root.as<Date>() != nullptr));
    TARNWELL_CHECK(archive::unarchiveString(bytes).has_value() == (root.as<std::string>() != nullptr));
    TARNWELL_CHECK(archive::unarchiveStrings(bytes).has_value() == isListOfStrings);
    const auto number = archive::unarchiveNumber(bytes);
    TARNWELL_CHECK(number.has_value() == isNumber);
    if (number && number->asDouble() < 0) TARNWELL_CHECK(number->asUnsigned() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto root = archive::unarchiveRoot({data, size});
    if (!root) {
        TARNWELL_CHECK(root.error().domain == ErrorDomain::unarchive);
        TARNWELL_CHECK(!archive::unarchiveStrings({data, size}));
        return 0;
    }
    checkTypedReaders({data, size}, *root);
    // The same object always gives the same bytes, so that equal bytes mean equal objects.
    const Bytes archived = archive::archiveRoot(*root);
    const auto again = archive::unarchiveRoot(archived);
    TARNWELL_CHECK(again.has_value());
    TARNWELL_CHECK(archive::archiveRoot(*again) == archived);
    return 0;
}
