#include "bus/wire/Packed.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <random>

#include "bus/wire/Packer.h"
#include "testing/ScriptedSession.h"

namespace tarnwell::bus {
namespace {

using session::Change;
using session::Item;
using testing::fullItem;

struct Unref {
    void operator()(GVariant* value) const { g_variant_unref(value); }
};
using Variant = std::unique_ptr<GVariant, Unref>;

/// As GLib reads the bytes.
Variant read(const Bytes& bytes, const char* type) {
    GBytes* copy = g_bytes_new(bytes.data(), bytes.size());
    Variant little(g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(type), copy, FALSE)));
    g_bytes_unref(copy);
    return G_BYTE_ORDER == G_LITTLE_ENDIAN ? std::move(little) : Variant(g_variant_byteswap(little.get()));
}
/// As GLib writes the text, which is of its own form for values.
Bytes written(const char* text, const char* type) {
    Variant value(g_variant_ref_sink(g_variant_parse(G_VARIANT_TYPE(type), text, nullptr, nullptr, nullptr)));
    if (G_BYTE_ORDER != G_LITTLE_ENDIAN) value.reset(g_variant_byteswap(value.get()));
    const auto* data = static_cast<const std::uint8_t*>(g_variant_get_data(value.get()));
    return {data, data + g_variant_get_size(value.get())};
}
std::string printed(const Variant& value) {
    char* text = g_variant_print(value.get(), TRUE);
    std::string result(text);
    g_free(text);
    return result;
}

Item itemNamed(const std::string& name) {
    Item item;
    item.identifier = "did=" + name;
    item.parent = "RootContainer";
    item.filename = name;
    item.typeIdentifier = "text/plain";
    item.path = "/home/someone/Documents/" + name;
    item.tags = std::vector<std::string>{"red", "", "with \xff byte"};
    return item;
}

TEST(Packed, ReadsAsTheSameDictionariesInGLib) {
    Item item;
    item.identifier = "did=1";
    item.parent = "RootContainer";
    item.filename = "a";
    item.typeIdentifier = "text/plain";
    item.documentSize = 7;
    item.creationDate = Date(std::chrono::nanoseconds(-5));
    item.childItemCount = 3;
    item.capabilities = 61;
    item.tags = std::vector<std::string>{"x", ""};
    item.path = "/a";
    item.isFolder = true;
    const Variant value = read(packItems({item, Item{}}), "aa{sv}");
    EXPECT_TRUE(g_variant_is_normal_form(value.get()));
    EXPECT_EQ(g_variant_n_children(value.get()), 2u);
    const Variant first(g_variant_get_child_value(value.get(), 0));
    EXPECT_EQ(printed(first),
              "{'itemIdentifier': <'did=1'>, 'parentItemIdentifier': <'RootContainer'>, 'filename': <[byte 0x61]>, "
              "'typeIdentifier': <'text/plain'>, 'documentSize': <uint64 7>, 'creationDate': <int64 -5>, "
              "'childItemCount': <uint16 3>, 'capabilities': <uint64 61>, 'isTrashed': <false>, "
              "'tags': <[[byte 0x78], []]>, 'path': <[byte 0x2f, 0x61]>, 'isFolder': <true>, 'isContainer': <false>, "
              "'isUbiquitous': <false>}");
}

TEST(Packed, IsInNormalFormWhateverItsSize) {
    // Framing offsets of 1, 2 and 4 bytes, for each container on its own.
    for (const std::size_t length : {0, 1, 100, 239, 240, 241, 242, 243, 244, 245, 246, 300, 60'000}) {
        for (const std::size_t count : {0, 1, 2, 5, 300}) {
            std::vector<Item> items(count, itemNamed(std::string(length, 'n')));
            const Bytes packed = packItems(items);
            const Variant value = read(packed, "aa{sv}");
            EXPECT_TRUE(g_variant_is_normal_form(value.get())) << count << " of " << length;
            EXPECT_EQ(g_variant_n_children(value.get()), count);
            EXPECT_EQ(unpackItems(packed), items) << count << " of " << length;
        }
    }
}

TEST(Packed, ChangesToo) {
    const std::vector<Change> changes{{"did=17", fullItem()}, {"fid=9", std::nullopt}, {"x", itemNamed("n")}};
    const Bytes packed = packChanges(changes);
    const Variant value = read(packed, "a(sa{sv})");
    EXPECT_TRUE(g_variant_is_normal_form(value.get()));
    const Variant gone(g_variant_get_child_value(value.get(), 1));
    EXPECT_EQ(printed(gone), "('fid=9', @a{sv} {})");
    const auto unpacked = unpackChanges(packed);
    ASSERT_TRUE(unpacked);
    ASSERT_EQ(unpacked->size(), changes.size());
    for (std::size_t i = 0; i < changes.size(); ++i) {
        EXPECT_EQ((*unpacked)[i].identifier, changes[i].identifier);
        EXPECT_EQ((*unpacked)[i].item, changes[i].item);
    }
    EXPECT_EQ(unpackChanges(packChanges({}))->size(), 0u);
}

TEST(Packed, ReadsWhatGLibWritesAndPassesOverWhatItDoesNotKnow) {
    const auto items =
        unpackItems(written("[{'itemIdentifier': <'did=1'>, 'new': <[(1, 'two', [@mv nothing])]>, "
                            "'documentSize': <uint64 9>, 'filename': <b'a\\xff'>, 'isFolder': <1>}]",
                            "aa{sv}"));
    ASSERT_TRUE(items);
    ASSERT_EQ(items->size(), 1u);
    EXPECT_EQ(items->front().identifier, "did=1");
    EXPECT_EQ(items->front().documentSize, 9u);
    EXPECT_FALSE(items->front().isFolder);  // no boolean
}

TEST(Packed, TextThatIsNoneIsReplacedAsInMessages) {
    Item item = itemNamed("n");
    item.identifier = "did=\xff";
    const auto items = unpackItems(packItems({item}));
    ASSERT_TRUE(items);
    EXPECT_EQ(items->front().identifier, "did=\xEF\xBF\xBD");
}

TEST(Packed, DamagedBytesAreAnErrorOrOtherItems) {
    const Bytes packed = packItems({fullItem(), itemNamed("name")});
    for (std::size_t i = 0; i < packed.size(); ++i) {
        const auto cut = unpackItems({packed.data(), i});
        EXPECT_TRUE(cut || cut.error().is(ErrorDomain::posix, EBADMSG));
        for (const int flipped : {0x01, 0x80, 0xff}) {
            Bytes damaged = packed;
            damaged[i] = static_cast<std::uint8_t>(damaged[i] ^ flipped);
            const auto read = unpackItems(damaged);
            EXPECT_TRUE(read ? read->size() <= packed.size() : read.error().is(ErrorDomain::posix, EBADMSG));
        }
    }
    EXPECT_FALSE(unpackItems(Bytes{0xff}));
    // A hundred million items of nothing.
    Packer packer;
    packer.open();
    for (int i = 0; i < 200'000; ++i) packer.endPart();
    packer.closeArray();
    EXPECT_FALSE(unpackItems(packer.take()));
}

}  // namespace
}  // namespace tarnwell::bus
