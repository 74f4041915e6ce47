#include "applibraries/LibraryNames.h"

#include <algorithm>

#include "applibraries/AppLibraryCacheFile.h"
#include "platform/archive/PropertyList.h"
#include "platform/filesystem/PlainFile.h"

namespace tarnwell::applibraries {

namespace {

using ByLanguage = std::pair<std::string, LibraryNames::Names>;

constexpr const char* kLanguages = "languages";
constexpr const char* kNames = "names";

/// An array of dictionaries. Names are data, not text: they have to come back as they were.
Bytes encode(const std::vector<ByLanguage>& noted) {
    archive::Array list;
    for (const auto& [languages, names] : noted) {
        archive::Dictionary known;
        for (const auto& [identifier, name] : names) known.emplace_back(identifier, Bytes(name.begin(), name.end()));
        list.emplace_back(archive::Dictionary{{kLanguages, languages}, {kNames, std::move(known)}});
    }
    return archive::writeBinaryPropertyList(std::move(list));
}

std::vector<ByLanguage> decode(ByteView bytes) {
    const auto list = archive::readBinaryPropertyList(bytes);
    const archive::Array* array = list ? list->array() : nullptr;
    std::vector<ByLanguage> noted;
    if (array == nullptr) return noted;
    for (const archive::Value& entry : *array) {
        if (noted.size() == LibraryNames::kMostLanguages) break;
        const archive::Value* languages = entry.find(kLanguages);
        const archive::Value* names = entry.find(kNames);
        const std::string* text = languages ? languages->as<std::string>() : nullptr;
        const archive::Dictionary* dictionary = names ? names->dictionary() : nullptr;
        if (text == nullptr || dictionary == nullptr) continue;
        auto& known = noted.emplace_back(*text, LibraryNames::Names()).second;
        for (const auto& [identifier, value] : *dictionary) {
            if (const Bytes* name = value.as<Bytes>()) known.insert_or_assign(identifier, std::string(textOf(*name)));
        }
    }
    return noted;
}

}  // namespace

LibraryNames::LibraryNames(items::ProgramLog& log, URL fileURL) : log_(log), fileURL_(std::move(fileURL)) {}

std::vector<LibraryNames::ByLanguage>& LibraryNames::noted() {
    if (!isRead_) {
        isRead_ = true;
        if (const auto bytes = filesystem::readFile(fileURL_.path(), kMaxCacheFileBytes)) noted_ = decode(*bytes);
    }
    return noted_;
}

bool LibraryNames::differ(const Names& a, const Names& b) {
    return std::ranges::any_of(a, [&](const auto& entry) {
        const auto found = b.find(entry.first);
        return found != b.end() && found->second != entry.second;
    });
}

bool LibraryNames::areOthers(const std::string& languages, const Names& now) {
    const auto& all = noted();
    const auto known = std::ranges::find(all, languages, &ByLanguage::first);
    return known != all.end() && differ(known->second, now);
}

void LibraryNames::note(const std::string& languages, const Names& now) {
    auto& all = noted();
    // Programs that take turns in different languages leave the file as it is.
    const auto known = std::ranges::find(all, languages, &ByLanguage::first);
    if (known != all.end() && known->second == now) return;
    auto next = all;
    std::erase_if(next, [&](const ByLanguage& one) { return one.first == languages; });
    next.insert(next.begin(), {languages, now});
    if (next.size() > kMostLanguages) next.resize(kMostLanguages);
    Result<void> written = filesystem::createDirectories(fileURL_.deletingLastPathComponent().path());
    if (written) written = filesystem::writeFileAtomically(fileURL_.path(), encode(next));
    if (written) {
        all = std::move(next);
    } else {
        log_.error("can't save the names of app libraries; " + describe(written.error()));
    }
}

}  // namespace tarnwell::applibraries
