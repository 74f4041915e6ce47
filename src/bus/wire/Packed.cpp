#include "bus/wire/Packed.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "bus/wire/ItemEntries.h"
#include "bus/wire/Message.h"
#include "bus/wire/Names.h"
#include "bus/wire/Packer.h"
#include "platform/base/UTF8.h"

namespace tarnwell::bus {
namespace {

using session::Change;
using session::Item;

/// The alignment of a variant, and so of all that holds one.
constexpr std::size_t kVariant = Packer::kVariant;
/// About the bytes of one item, generously.
constexpr std::size_t kUsualItem = 800;
/// About the least that a real one takes; room is made at once for no more of them than the bytes can hold.
constexpr std::size_t kLeastItem = 64;
/// So many times the items of a page, and of a batch of changes.
constexpr std::size_t kMostPacked = 100'000;

/// The entries of an open a{sv}.
class PackedEntries {
public:
    explicit PackedEntries(Packer& packer) : packer_(packer) {}

    void text(std::string_view key, std::string_view value) {
        // The NUL that ends a text, and the one before a variant's type.
        if (isText(value)) {
            packer_.entry(key, value, 2, "s");
        } else {
            packer_.entry(key, displayable(value), 2, "s");
        }
    }
    void maybeText(std::string_view key, const std::optional<std::string>& value) {
        if (value) text(key, *value);
    }
    void bytes(std::string_view key, std::string_view value) { packer_.entry(key, value, 1, "ay"); }
    void boolean(std::string_view key, bool value) { fixed(key, value ? 1 : 0, 1, "b"); }
    void number(std::string_view key, std::uint64_t value) { fixed(key, value, 8, "t"); }
    void number(std::string_view key, const std::optional<std::uint64_t>& value) {
        if (value) number(key, *value);
    }
    void integer(std::string_view key, std::int64_t value) { fixed(key, static_cast<std::uint64_t>(value), 8, "x"); }
    void date(std::string_view key, const std::optional<Date>& value) {
        if (value) integer(key, value->time_since_epoch().count());
    }
    void smallNumber(std::string_view key, std::uint16_t value) { fixed(key, value, 2, "q"); }
    void texts(std::string_view key, const std::vector<std::string>& values) {
        Packer array;
        array.open();
        for (const std::string& value : values) {
            array.raw(value);
            array.endPart();
        }
        array.closeArray();
        packer_.entry(key, textOf(array.take()), 1, "aay");
    }

private:
    void fixed(std::string_view key, std::uint64_t value, std::size_t width, std::string_view type) {
        const auto bytes = littleEndian(value);
        packer_.entry(key, textOf(ByteView(bytes).first(width)), 1, type);
    }

    Packer& packer_;
};

void packItem(Packer& packer, const Item* item) {
    packer.open();
    if (item != nullptr) {
        PackedEntries entries(packer);
        writeEntries(entries, *item);
    }
    packer.closeArray();
}

/// A part of what is read: a view of bytes that begin at a multiple of 8. What is not in normal form is said once.
class Unpacking {
public:
    void fail() { failed_ = true; }
    bool failed() const { return failed_; }

private:
    bool failed_ = false;
};

std::uint64_t numberOf(ByteView bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = bytes.size(); i-- > 0;) value = (value << 8) | bytes[i];
    return value;
}

/// The parts of an array whose elements have a variable size.
class PackedArray {
public:
    PackedArray(ByteView bytes, std::size_t alignment, Unpacking& state)
        : bytes_(bytes), alignment_(alignment), state_(state) {
        if (bytes_.empty()) return;
        width_ = offsetWidthOf(bytes_.size());
        const std::uint64_t offsets = numberOf(bytes_.last(width_));
        if (offsets > bytes_.size() - width_ || (bytes_.size() - offsets) % width_ != 0) {
            state_.fail();
            return;
        }
        offsets_ = offsets;
        count_ = (bytes_.size() - offsets_) / width_;
    }
    /// 0 where there are more than `most`, which is no answer of the service.
    std::size_t count(std::size_t most) const {
        if (count_ > most) state_.fail();
        return state_.failed() ? 0 : count_;
    }
    /// To be asked for one after the other.
    ByteView next() {
        const std::size_t begin = at_ == 0 ? 0 : aligned(end_, alignment_);
        const std::uint64_t end = numberOf(bytes_.subspan(offsets_ + at_ * width_, width_));
        ++at_;
        if (end < begin || end > offsets_) {
            state_.fail();
            return {};
        }
        end_ = end;
        return bytes_.subspan(begin, end_ - begin);
    }

private:
    const ByteView bytes_;
    const std::size_t alignment_;
    Unpacking& state_;
    std::size_t width_ = 1, offsets_ = 0, count_ = 0;
    std::size_t at_ = 0, end_ = 0;
};

/// What is before the NUL that ends it.
std::string_view textIn(ByteView bytes, Unpacking& state) {
    const std::string_view text = textOf(bytes);
    if (text.empty() || text.back() != '\0' || text.find('\0') != text.size() - 1 || text.size() > kLongestText) {
        state.fail();
        return {};
    }
    return text.substr(0, text.size() - 1);
}

/// What a variant holds.
class PackedValue {
public:
    PackedValue(ByteView bytes, Unpacking& state) : bytes_(bytes), state_(state) {}

    std::string string() {
        const std::string_view text = textIn(bytes_, state_);
        if (!isUTF8(text)) state_.fail();
        return std::string(text);
    }
    std::string text() { return textOf(bytes_, state_); }
    std::uint64_t uint64() { return fixed(8); }
    std::int64_t int64() { return static_cast<std::int64_t>(fixed(8)); }
    std::uint16_t uint16() { return static_cast<std::uint16_t>(fixed(2)); }
    bool boolean() {
        const std::uint64_t value = fixed(1);
        if (value > 1) state_.fail();
        return value == 1;
    }
    std::vector<std::string> texts() {
        PackedArray array(bytes_, 1, state_);
        const std::size_t count = array.count(kMostPerRequest);
        std::vector<std::string> texts;
        for (std::size_t i = 0; i < count; ++i) texts.push_back(textOf(array.next(), state_));
        return texts;
    }

private:
    static std::string textOf(ByteView bytes, Unpacking& state) {
        if (bytes.size() > kLongestText) {
            state.fail();
            return {};
        }
        return std::string(tarnwell::textOf(bytes));
    }
    std::uint64_t fixed(std::size_t width) {
        if (bytes_.size() != width) {
            state_.fail();
            return 0;
        }
        return numberOf(bytes_);
    }

    const ByteView bytes_;
    Unpacking& state_;
};

/// Two parts, the first of which has a variable size and the second the alignment of a variant.
std::pair<ByteView, ByteView> pairIn(ByteView bytes, Unpacking& state) {
    const std::size_t width = offsetWidthOf(bytes.size());
    if (bytes.empty()) {
        state.fail();
        return {};
    }
    const std::uint64_t end = numberOf(bytes.last(width));
    const std::size_t limit = bytes.size() - width;
    if (end > limit || aligned(end, kVariant) > limit) {
        state.fail();
        return {};
    }
    const std::size_t second = aligned(end, kVariant);
    return {bytes.first(end), bytes.subspan(second, limit - second)};
}

void unpackEntry(ByteView bytes, Item& item, Unpacking& state) {
    const auto [keyBytes, variant] = pairIn(bytes, state);
    if (state.failed()) return;
    const std::string_view key = textIn(keyBytes, state);
    const std::string_view whole = textOf(variant);
    const std::size_t nul = whole.rfind('\0');
    if (nul == std::string_view::npos) return state.fail();
    PackedValue value(variant.first(nul), state);
    (void)readEntry(value, key, whole.substr(nul + 1), item);
}

/// False where the dictionary has no entry.
bool unpackItem(ByteView bytes, Item& item, Unpacking& state) {
    PackedArray entries(bytes, kVariant, state);
    const std::size_t count = entries.count(kMostPerRequest);
    for (std::size_t i = 0; i < count && !state.failed(); ++i) unpackEntry(entries.next(), item, state);
    return count != 0;
}

/// An array; `packOne` writes an element from where it begins.
template <typename T, typename PackOne>
Bytes packList(const std::vector<T>& list, PackOne packOne) {
    Packer packer;
    packer.reserve(list.size() * kUsualItem);
    packer.open();
    for (const T& one : list) {
        packer.align(kVariant);
        packOne(packer, one);
        packer.endPart();
    }
    packer.closeArray();
    return packer.take();
}

/// The same the other way.
template <typename T, typename UnpackOne>
Result<std::vector<T>> unpackList(ByteView packed, UnpackOne unpackOne) {
    Unpacking state;
    PackedArray array(packed, kVariant, state);
    std::vector<T> list;
    const std::size_t count = array.count(kMostPacked);
    list.reserve(std::min(count, packed.size() / kLeastItem));
    for (std::size_t i = 0; i < count && !state.failed(); ++i) unpackOne(array.next(), list.emplace_back(), state);
    if (state.failed()) return failure(posixError(EBADMSG, "the service's answer could not be read"));
    return list;
}

}  // namespace

Bytes packItems(const std::vector<Item>& items) {
    return packList(items, [](Packer& packer, const Item& item) { packItem(packer, &item); });
}

Result<std::vector<Item>> unpackItems(ByteView packed) { return unpackList<Item>(packed, unpackItem); }

Bytes packChanges(const std::vector<Change>& changes) {
    return packList(changes, [](Packer& packer, const Change& change) {
        packer.open();
        packer.text(displayable(change.identifier));
        packer.endPart();
        packer.align(kVariant);
        packItem(packer, change.item ? &*change.item : nullptr);
        packer.closeStructure();
    });
}

Result<std::vector<Change>> unpackChanges(ByteView packed) {
    return unpackList<Change>(packed, [](ByteView bytes, Change& change, Unpacking& state) {
        const auto [identifier, dictionary] = pairIn(bytes, state);
        if (state.failed()) return;
        change.identifier = PackedValue(identifier, state).string();
        if (!unpackItem(dictionary, change.item.emplace(), state)) change.item.reset();
    });
}

}  // namespace tarnwell::bus
