#include "tests/mirror/Truth.h"

#include <sys/xattr.h>

#include <algorithm>
#include <array>

#include "hostframework/TagCodec.h"
#include "items/LocalItem.h"
#include "platform/archive/KeyedArchive.h"
#include "tests/mirror/Layout.h"

namespace tarnwell::mirror {
namespace {

std::string parentOf(const std::string& path) { return path.substr(0, path.rfind('/')); }
std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::optional<Bytes> attributeOf(const std::string& path, const std::string& name) {
    std::array<std::uint8_t, 4096> buffer;
    const ssize_t size = ::lgetxattr(path.c_str(), ("user." + name).c_str(), buffer.data(), buffer.size());
    if (size < 0) return std::nullopt;
    return Bytes(buffer.begin(), buffer.begin() + size);
}

std::optional<std::string> tagsOf(const std::string& path) {
    const auto bytes = attributeOf(path, items::LocalItem::xattrTagDataName);
    const auto labels = bytes ? archive::unarchiveStrings(*bytes) : failure(posixError(ENODATA));
    if (!labels) return std::nullopt;
    return encodedTags(*labels);
}

std::optional<std::uint64_t> rankOf(const std::string& path) {
    const auto bytes = attributeOf(path, items::LocalItem::xattrFavoriteRankName);
    const auto rank = bytes ? archive::unarchiveNumber(*bytes) : failure(posixError(ENODATA));
    return rank ? std::optional(rank->asUnsigned()) : std::nullopt;
}

bool areSame(const Truth& a, const Truth& b) {
    return std::ranges::equal(a, b, [](const auto& one, const auto& other) {
        return one.first == other.first && one.second.object.key == other.second.object.key &&
               one.second.object.changed == other.second.object.changed && one.second.kept == other.second.kept;
    });
}

void identify(Truth& truth, HostedDevice& device) {
    Message question{"identify"};
    std::vector<Truth::iterator> asked;
    for (auto it = truth.begin(); it != truth.end(); ++it) {
        if (!it->second.object.visible) continue;
        question.push_back(device.path(it->first));
        asked.push_back(it);
    }
    const Message answer = device.ask(question);
    for (std::size_t i = 0; i < asked.size(); ++i) asked[i]->second.identifier = answer.at(i + 1);
}

bool isTop(const std::string& path, std::string& parent) {
    for (const RootFolder& root : kRoots) {
        if (parentOf(path) != root.path) continue;
        parent = root.identifier;
        return true;
    }
    return false;
}

void findParents(Truth& truth) {
    for (auto& [path, standing] : truth) {
        if (standing.object.visible && !isTop(path, standing.kept.parent)) {
            standing.kept.parent = truth.at(parentOf(path)).identifier;
        }
    }
}

bool isBelow(const std::string& path, const std::optional<std::string>& folder) {
    return !folder || path.starts_with(*folder + "/");
}

/// The names of one object.
struct Names {
    std::vector<const Truth::value_type*> inSight;
    std::size_t outOfSight = 0;
};

}  // namespace

Truth readNames(const HostedDevice& device) {
    Truth truth;
    for (const RootFolder& root : kRoots) {
        const std::string at = device.path(root.path);
        for (auto& [relative, object] : testing::readDisk(at, device.packageSuffix())) {
            Standing standing{.object = object, .identifier = "", .kept = {.parent = "", .name = nameOf(relative)}};
            if (object.visible) {
                const std::string path = at + "/" + relative;
                if (object.isFile()) standing.kept.size = object.size;
                standing.kept.modified = object.modified;
                standing.kept.tags = tagsOf(path);
                standing.kept.rank = rankOf(path);
                standing.kept.isFolder = object.isFolder() && !object.package;
            }
            truth.emplace(std::string(root.path) + "/" + relative, std::move(standing));
        }
    }
    return truth;
}

std::optional<Truth> readTruth(HostedDevice& device) {
    constexpr int kMostLooks = 5;
    for (int look = 0; look < kMostLooks; ++look) {
        Truth truth = readNames(device);
        identify(truth, device);
        if (!areSame(truth, readNames(device))) continue;
        findParents(truth);
        return truth;
    }
    return std::nullopt;
}

std::optional<std::string> folderOf(const Truth& truth, const std::string& identifier) {
    for (const auto& [path, standing] : truth) {
        if (standing.identifier == identifier && standing.kept.isFolder) return path;
    }
    return std::nullopt;
}

std::optional<std::string> placeOf(const Truth& truth, const testing::ObjectKey& folder) {
    for (const auto& [path, standing] : truth) {
        if (standing.object.visible && standing.object.key == folder && standing.kept.isFolder) return path;
    }
    return std::nullopt;
}

Problems compare(const Mirror& mirror, const Truth& truth, const std::optional<std::string>& folder) {
    Problems problems;
    std::map<testing::ObjectKey, Names> objects;
    for (const auto& name : truth) {
        Names& names = objects[name.second.object.key];
        if (name.second.object.visible && isBelow(name.first, folder)) {
            names.inSight.push_back(&name);
        } else {
            ++names.outOfSight;
        }
    }
    std::map<std::string, const Names*> expected;
    for (const auto& [key, names] : objects) {
        if (names.inSight.empty()) continue;
        const auto& [path, standing] = *names.inSight.front();
        if (standing.identifier.empty()) {
            problems.push_back(path + " has no identifier");
        } else if (!expected.emplace(standing.identifier, &names).second) {
            problems.push_back(path + " has the identifier of another object, " + standing.identifier);
        }
        const auto known = mirror.items().find(standing.identifier);
        if (known == mirror.items().end()) {
            if (names.outOfSight == 0) {
                problems.push_back("it lacks " + standing.identifier + ", " + path + ", " + describe(standing.kept));
            }
            continue;
        }
        if (std::ranges::none_of(names.inSight, [&](const auto* name) { return name->second.kept == known->second; })) {
            problems.push_back("it has " + standing.identifier + ", " + path + ", as " + describe(known->second) +
                               ", and it is " + describe(standing.kept));
        }
    }
    for (const auto& [identifier, kept] : mirror.items()) {
        const bool isLibrary = std::ranges::any_of(kRoots, [&](const RootFolder& root) {
            return identifier == root.identifier && kept.parent == "RootContainer";
        });
        if (isLibrary && !folder) continue;
        if (!expected.contains(identifier)) problems.push_back("it still has " + identifier + ", " + describe(kept));
    }
    return problems;
}

}  // namespace tarnwell::mirror
