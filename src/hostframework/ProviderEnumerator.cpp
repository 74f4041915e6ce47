#include "hostframework/ProviderEnumerator.h"

#include <string_view>

namespace tarnwell::hostframework {
namespace {

EnumerationPage pageNamed(std::string_view name) {
    ByteView bytes = bytesOf(name);
    return {bytes.begin(), bytes.end()};
}

}  // namespace

const EnumerationPage kInitialPageSortedByName = pageNamed("InitialPageSortedByName");
const EnumerationPage kInitialPageSortedByDate = pageNamed("InitialPageSortedByDate");

}  // namespace tarnwell::hostframework
