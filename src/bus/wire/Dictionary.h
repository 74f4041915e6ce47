#pragma once

#include <string>
#include <string_view>

#include "bus/wire/Message.h"

namespace tarnwell::bus {

/// Reads a{sv}: `take(key, contents)` reads the value, which has that signature, or says by `false` that it does not
/// know the key, which is then passed over.
template <typename Take>
void readDictionary(Reader& reader, Take take) {
    reader.enter('a', "{sv}");
    while (reader.more()) {
        reader.enter('e', "sv");
        const std::string key = reader.string();
        const std::string contents(reader.variantContents());
        if (reader.error() != 0) return;
        reader.enter('v', contents.c_str());
        if (!take(std::string_view(key), std::string_view(contents))) reader.skip();
        reader.exit();
        reader.exit();
    }
    reader.exit();
}

}  // namespace tarnwell::bus
