#include "fs/ChangeToken.h"

#include "fuzz/Fuzz.h"

using namespace tarnwell;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto token = fs::ChangeToken::decode({data, size});
    if (!token) return 0;
    TARNWELL_CHECK(size != 48);
    const Bytes encoded = token->encode();
    TARNWELL_CHECK(encoded.size() != 48);
    TARNWELL_CHECK(fs::ChangeToken::decode(encoded) == token);
    TARNWELL_CHECK(!token->description().empty());
    return 0;
}
