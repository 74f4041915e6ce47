#include <cerrno>

#include "platform/archive/PropertyList.h"
#include "platform/archive/PropertyListDocument.h"

namespace tarnwell::archive {

namespace {

/// Makes the values of a document, which has been checked and so is within the limits.
class Builder {
public:
    explicit Builder(const PropertyListDocument& document) : document_(document) {}

    Value build(const ObjectView& object) const {
        using Kind = ObjectView::Kind;
        switch (object.kind()) {
            case Kind::null:
            case Kind::unknown:
                break;
            case Kind::boolean:
                return *object.as<bool>();
            case Kind::integer:
                return *object.as<Integer>();
            case Kind::real:
                return *object.as<double>();
            case Kind::date:
                return *object.as<PlistDate>();
            case Kind::uid:
                return *object.as<Uid>();
            case Kind::data: {
                const ByteView bytes = object.as<DataView>()->bytes;
                return Bytes(bytes.begin(), bytes.end());
            }
            case Kind::text:
                return object.as<TextView>()->utf8();
            case Kind::array:
                return array(*object.as<ArrayView>());
            case Kind::dictionary:
                return dictionary(*object.as<DictionaryView>());
        }
        return {};
    }

private:
    Array array(const ArrayView& view) const {
        Array array;
        array.reserve(static_cast<std::size_t>(view.count));
        for (std::size_t i = 0; i < view.count; ++i) array.push_back(build(document_.element(view, i)));
        return array;
    }

    Dictionary dictionary(const DictionaryView& view) const {
        Dictionary dictionary;
        dictionary.reserve(static_cast<std::size_t>(view.count));
        for (std::size_t i = 0; i < view.count; ++i)
            dictionary.emplace_back(document_.key(view, i).as<TextView>()->utf8(), build(document_.value(view, i)));
        return dictionary;
    }

    const PropertyListDocument& document_;
};

}  // namespace

Result<Value> readBinaryPropertyList(ByteView bytes) {
    const auto document = PropertyListDocument::open(bytes);
    if (!document) return failure(posixError(EBADMSG, messageOf(document.error())));
    return Builder(*document).build(document->top());
}

}  // namespace tarnwell::archive
