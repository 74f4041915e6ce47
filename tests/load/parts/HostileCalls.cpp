#include "tests/load/parts/HostileCalls.h"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "bus/wire/Names.h"

namespace tarnwell::load {
namespace {

struct Method {
    const char* name;
    std::vector<std::string> arguments;
};

const std::vector<Method>& methods() {
    static const std::vector<Method> all = {
        {"Item", {"s"}},
        {"Items", {"as"}},
        {"ItemForPath", {"ay"}},
        {"IdentifiersAtPaths", {"aay", "b"}},
        {"Enumerate", {"s", "ay"}},
        {"CurrentAnchor", {"s"}},
        {"Changes", {"s", "ay"}},
        {"Watch", {"s"}},
        {"Unwatch", {"s"}},
        {"Open", {"s", "b"}},
        {"Search", {"ay", "a{sv}", "t"}},
        {"Applications", {}},
        {"DefaultContainer", {"s"}},
        {"Thumbnails", {"as", "u"}},
        {"Status", {}},
        {"Info", {}},
        {"MakeFolder", {"ay", "s"}},
        {"Rename", {"s", "ay"}},
        {"SetTags", {"s", "aay"}},
        {"SetFavoriteRank", {"s", "at"}},
        {"SetLastUsedDate", {"s", "ax"}},
        {"Import", {"aay", "s"}},
        {"Move", {"as", "s", "aay"}},
        {"Trash", {"as"}},
        {"Delete", {"as"}},
        {"Restore", {"as", "as"}},
        {"CleanTrash", {"x"}},
        {"Refresh", {}},
    };
    return all;
}

constexpr std::string_view kBasicTypes = "ybnqiuxtdsogh";
constexpr std::size_t kLongest = tarnwell::bus::kLongestText;

}  // namespace

std::size_t HostileCalls::length() {
    switch (below(40)) {
        case 0:
            return kLongest - 1 + below(3);
        case 1:
            return below(300'000);
        case 2:
            return 4095 + below(3);
        case 3:
            return 255 + below(3);
        default:
            return below(40);
    }
}

/// D-Bus lets nothing through that is no UTF-8.
std::string HostileCalls::text() {
    static const std::vector<std::string> named = {"",
                                                   "RootContainer",
                                                   "WorkingSetContainer",
                                                   "AllDirectoriesContainer",
                                                   "did=",
                                                   "fid=-1",
                                                   "#",
                                                   "did=18446744073709551615",
                                                   "#../../etc",
                                                   "fid=0",
                                                   "#org.example.Notes",
                                                   "did=x1"};
    switch (below(6)) {
        case 0:
            return oneOf(named);
        case 1:
            return oneOf(known_.victims);
        case 2: {
            std::string near = oneOf(known_.victims);
            // Not in the number, which would be somebody else's.
            near[below(3)] = static_cast<char>(' ' + below(95));
            return near;
        }
        case 3:
            return (chance(50) ? "did=" : "fid=") + std::to_string(random_());
        case 4:
            return std::string(length(), static_cast<char>(' ' + below(95)));
        default: {
            static const std::vector<std::string> pieces = {
                "\xE2\x80\xAE", "\xF0\x9F\x93\x84", "\n", "\x1b[2J", "%s%n", "/", "=", "a"};
            std::string noise;
            for (std::size_t i = below(20); i > 0; --i) noise += oneOf(pieces);
            return noise;
        }
    }
}

std::vector<std::uint8_t> HostileCalls::bytes() {
    std::vector<std::uint8_t> value;
    if (chance(50)) {
        value = oneOf(known_.tokens);
        for (std::size_t i = below(3); i > 0 && !value.empty(); --i) {
            value[below(value.size())] ^= static_cast<std::uint8_t>(1U << below(8));
        }
        if (chance(30)) value.resize(below(value.size() + 1));
        if (chance(10)) value.resize(value.size() + below(1000), 0xFF);
        return value;
    }
    value.resize(length());
    for (auto& byte : value) byte = static_cast<std::uint8_t>(random_());
    return value;
}

/// Never one that leads to what is not this test's.
std::string HostileCalls::path() {
    switch (below(4)) {
        case 0:
            return oneOf(known_.paths);
        case 1:
            return oneOf(known_.paths) + "/../../" + std::string(below(300), 'x');
        case 2: {
            const auto noise = bytes();
            return "/nonexistent/" + std::string(noise.begin(), noise.end());
        }
        default: {
            const auto noise = bytes();
            return std::string(noise.begin(), noise.end()).insert(0, "relative ");
        }
    }
}

std::size_t HostileCalls::count() {
    switch (below(200)) {
        case 0:
            return 1000 + below(2);
        case 1:
            return below(20'000);
        default:
            return below(4);
    }
}

std::string HostileCalls::randomType(int depth) {
    // The bus ends a connection that brings more than a few descriptors with one message, so options have none.
    const std::size_t types = depth < 3 ? kBasicTypes.size() : kBasicTypes.size() - 1;
    const std::string basic(1, kBasicTypes[below(types)]);
    if (depth > 5) return basic;
    switch (below(7)) {
        case 0:
            return "a" + randomType(depth + 1);
        case 1:
            return "(" + randomType(depth + 1) + randomType(depth + 1) + ")";
        case 2:
            return "v";
        case 3:
            return "a{" + basic + randomType(depth + 1) + "}";
        default:
            return basic;
    }
}

void HostileCalls::append(sd_bus_message* call, const std::string& type, int depth) {
    const std::uint64_t number = random_();
    const std::string inside = type.substr(1);
    switch (type[0]) {
        case 's': {
            const std::string value = text();
            sd_bus_message_append_basic(call, 's', value.c_str());
            return;
        }
        case 'o':
            sd_bus_message_append_basic(call, 'o', chance(50) ? "/" : "/org/tarnwell/Host1/jobs/1");
            return;
        case 'g':
            sd_bus_message_append_basic(call, 'g', chance(50) ? "" : "a{sv}");
            return;
        case 'b': {
            const int truth = chance(50);
            sd_bus_message_append_basic(call, 'b', &truth);
            return;
        }
        case 'h': {
            const int descriptor = STDERR_FILENO;
            sd_bus_message_append_basic(call, 'h', &descriptor);
            return;
        }
        case 'v': {
            const std::string held = depth > 50 ? "y" : chance(80) ? "v" : randomType(4);
            sd_bus_message_open_container(call, 'v', held.c_str());
            append(call, held, depth + 1);
            sd_bus_message_close_container(call);
            return;
        }
        case 'a':
            sd_bus_message_open_container(call, 'a', inside.c_str());
            for (std::size_t i = below(3); i > 0; --i) append(call, inside, depth + 1);
            sd_bus_message_close_container(call);
            return;
        case '(':
        case '{': {
            const std::string members = type.substr(1, type.size() - 2);
            sd_bus_message_open_container(call, type[0] == '(' ? 'r' : 'e', members.c_str());
            for (std::size_t at = 0; at < members.size();) {
                // One whole type: what follows "a", and what is between brackets.
                std::size_t end = at;
                while (members[end] == 'a') ++end;
                int open = 0;
                do {
                    if (members[end] == '(' || members[end] == '{') ++open;
                    if (members[end] == ')' || members[end] == '}') --open;
                    ++end;
                } while (open > 0);
                append(call, members.substr(at, end - at), depth + 1);
                at = end;
            }
            sd_bus_message_close_container(call);
            return;
        }
        default:
            sd_bus_message_append_basic(call, type[0], &number);
    }
}

void HostileCalls::appendBytes(sd_bus_message* call, const std::vector<std::uint8_t>& value) {
    sd_bus_message_append_array(call, 'y', value.data(), value.size());
}

/// Entries twice, of other types than they have, unknown ones by the thousand.
void HostileCalls::appendOptions(sd_bus_message* call) {
    static const std::vector<std::string> names = {"types",  "tags",        "below", "newestFirst",
                                                   "byName", "withTrashed", "",      "else"};
    sd_bus_message_open_container(call, 'a', "{sv}");
    for (std::size_t i = count(); i > 0; --i) {
        const std::string type = chance(30) ? "aay" : chance(30) ? "b" : randomType(3);
        sd_bus_message_open_container(call, 'e', "sv");
        sd_bus_message_append_basic(call, 's', oneOf(names).c_str());
        sd_bus_message_open_container(call, 'v', type.c_str());
        append(call, type, 10);
        sd_bus_message_close_container(call);
        sd_bus_message_close_container(call);
    }
    sd_bus_message_close_container(call);
}

void HostileCalls::appendArgument(sd_bus_message* call, const std::string& type, const std::string& member) {
    const bool isPath = member == "ItemForPath" || member == "IdentifiersAtPaths" || member == "Import";
    const auto asBytes = [&] {
        if (!isPath) return bytes();
        const std::string value = path();
        return std::vector<std::uint8_t>(value.begin(), value.end());
    };
    if (type == "ay") return appendBytes(call, asBytes());
    if (type == "a{sv}") return appendOptions(call);
    if (type == "as" || type == "aay") {
        sd_bus_message_open_container(call, 'a', type.substr(1).c_str());
        // A thousand copies of a document, or a thousand pictures, are no malformed message.
        const std::size_t most = member == "Import" || member == "Thumbnails" ? 3 : 20'000;
        for (std::size_t i = std::min(count(), most); i > 0; --i) {
            if (type == "aay") {
                appendBytes(call, asBytes());
            } else {
                append(call, "s", 0);
            }
        }
        sd_bus_message_close_container(call);
        return;
    }
    if (type == "u") {
        const std::uint32_t side = chance(50) ? 0 : 0xFFFFFFFF;
        sd_bus_message_append_basic(call, 'u', &side);
        return;
    }
    append(call, type, 0);
}

sd_bus_message* HostileCalls::next(const RawConnection& connection) {
    const Method& method = oneOf(methods());
    if (chance(10)) {
        static const std::vector<std::string> members = {"Item",       "NoSuchMethod", "Result", "Cancel",
                                                         "Introspect", "GetAll",       "item"};
        static const std::vector<std::string> interfaces = {"org.tarnwell.Host1", "org.tarnwell.Job1",
                                                            "org.tarnwell.Host2", "org.freedesktop.DBus.Properties",
                                                            "org.freedesktop.DBus.Introspectable"};
        static const std::vector<std::string> paths = {"/",
                                                       "/org/tarnwell/Host1",
                                                       "/org/tarnwell/Host1/jobs",
                                                       "/org/tarnwell/Host1/jobs/1",
                                                       "/org/tarnwell/Host1/jobs/18446744073709551616",
                                                       "/a/b/c"};
        sd_bus_message* call =
            connection.newCall(oneOf(members).c_str(), oneOf(interfaces).c_str(), oneOf(paths).c_str());
        if (chance(50)) append(call, randomType(0), 0);
        return call;
    }
    sd_bus_message* call = connection.newCall(method.name);
    if (chance(15)) {
        for (std::size_t i = below(4); i > 0; --i) append(call, randomType(0), 0);
        return call;
    }
    for (const std::string& type : method.arguments) appendArgument(call, type, method.name);
    return call;
}

}  // namespace tarnwell::load
