#include "platform/files/KeptAttributes.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>

namespace tarnwell::files {

namespace {

bool isObject(const Result<filesystem::Status>& status, const store::ObjectIdentity& identity) {
    return status && status->inode == identity.inode && status->birth == identity.birth;
}

}  // namespace

/// Those of the kept names that are present, with their values; what is larger than the room that is left stays out.
template <typename Read>
std::optional<std::vector<store::KeptAttribute>> KeptAttributes::choose(const filesystem::AttributeNames& present,
                                                                        const Read& read) const {
    std::vector<store::KeptAttribute> kept;
    std::array<std::uint8_t, kMostBytes> buffer;
    std::size_t room = buffer.size();
    for (const std::string& name : names_) {
        if (std::find(present.user.begin(), present.user.end(), name) == present.user.end()) continue;
        // An empty buffer would ask for the size.
        if (room == 0) continue;
        const auto size = read(name, std::span(buffer.data(), room));
        if (!size) {
            const bool leftOut = size.error().is(ErrorDomain::posix, ERANGE) ||
                                 size.error().is(ErrorDomain::posix, E2BIG) ||
                                 size.error().is(ErrorDomain::posix, ENODATA);
            if (leftOut) continue;
            return std::nullopt;
        }
        kept.push_back({name, Bytes(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(*size))});
        room -= *size;
    }
    return kept;
}

std::optional<KeptAttributes::Found> KeptAttributes::readAt(int folder, const char* entry,
                                                            const store::ObjectIdentity& identity) const {
    const auto present = filesystem::attributeNamesAt(folder, entry);
    if (!present) return std::nullopt;
    if (present->user.empty()) return Found{{}, !present->hasAccessList};
    auto kept = choose(*present, [&](const std::string& name, std::span<std::uint8_t> buffer) {
        return filesystem::getAttributeAt(folder, entry, name, buffer);
    });
    // Values of another document must never be taken for this one's; that there are none needs no such care.
    if (!kept || (!kept->empty() && !isObject(filesystem::statusAt(folder, entry), identity))) return std::nullopt;
    return Found{std::move(*kept), false};
}

std::optional<std::vector<store::KeptAttribute>> KeptAttributes::readOf(int descriptor) const {
    const auto present = filesystem::attributeNamesOf(descriptor);
    if (!present) return std::nullopt;
    return choose(*present, [&](const std::string& name, std::span<std::uint8_t> buffer) {
        return filesystem::getAttributeOf(descriptor, name, buffer);
    });
}

std::optional<std::vector<store::KeptAttribute>> KeptAttributes::putBack(
    const Place& place, const store::ObjectIdentity& identity, const std::vector<store::KeptAttribute>& kept) const {
    std::optional<Error> failed;
    const auto opened = filesystem::openBeneath(place.root->directory.get(), place.relative, O_RDONLY);
    if (opened && !isObject(filesystem::statusOf(opened->get()), identity)) return std::nullopt;
    if (!opened) failed = opened.error();
    for (std::size_t i = 0; opened && i < kept.size(); ++i) {
        const auto added = filesystem::addAttributeOf(opened->get(), kept[i].name, kept[i].value);
        if (!added && !added.error().is(ErrorDomain::posix, EEXIST)) failed = added.error();
    }
    if (failed && log_ != nullptr && !failed->is(ErrorDomain::posix, ENOENT)) {
        log_->write(log::Level::error, "[ERROR] what was known of \"" + place.root->realPath + "/" + place.relative +
                                           "\" (tags and the like) cannot be put back on its new version; " +
                                           describe(*failed));
    }
    return opened ? readOf(opened->get()) : std::nullopt;
}

}  // namespace tarnwell::files
