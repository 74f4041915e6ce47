#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>

#include "platform/base/Ids.h"

/// A second opinion on property lists: the module of the Python standard library.
namespace tarnwell::python {

inline std::string shellQuoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

inline std::string hex(ByteView bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0F];
    }
    return text;
}

inline Bytes fromHex(const std::string& text) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

/// Runs the script with one argument and returns what it printed, the last line break cut off.
inline std::string run(const std::string& script, const std::string& argument = {}) {
    const std::string command = "python3 -c " + shellQuoted(script) + " " + shellQuoted(argument);
    std::FILE* pipe = ::popen(command.c_str(), "re");
    EXPECT_NE(pipe, nullptr);
    if (!pipe) return {};
    std::string output;
    std::array<char, 4096> buffer{};
    while (const std::size_t count = std::fread(buffer.data(), 1, buffer.size(), pipe))
        output.append(buffer.data(), count);
    EXPECT_EQ(::pclose(pipe), 0) << "python3 is needed by this test; it ran: " << script;
    if (!output.empty() && output.back() == '\n') output.pop_back();
    return output;
}

/// The list as JSON text: UIDs as {"UID": n}, data as {"data": "hex"}, dates in ISO 8601, keys in the order of the
/// list.
inline std::string json(ByteView list) {
    return run(R"(
import json, plistlib, sys
def other(value):
    if isinstance(value, plistlib.UID):
        return {"UID": value.data}
    if isinstance(value, bytes):
        return {"data": value.hex()}
    return value.isoformat()
print(json.dumps(plistlib.loads(bytes.fromhex(sys.argv[1]), fmt=plistlib.FMT_BINARY), default=other))
)",
               hex(list));
}

/// The bytes of the binary property list of a Python expression.
inline Bytes listOf(const std::string& expression) {
    return fromHex(run("import datetime, plistlib\nfrom plistlib import UID\nprint(plistlib.dumps(" + expression +
                       ", fmt=plistlib.FMT_BINARY).hex())"));
}

}  // namespace tarnwell::python
