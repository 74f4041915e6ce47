#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "platform/archive/ObjectView.h"

namespace tarnwell::archive {

/// A binary property list that was gone through once and found good; its values are looked at where they lie in the
/// file, so that a small value costs no memory. The file's bytes must outlive the document and every view.
///
/// A view that is passed in must be this document's own.
class PropertyListDocument {
public:
    /// Accepts what readBinaryPropertyList accepts, and says why not. Needs no memory in proportion to anything.
    static std::expected<PropertyListDocument, Refusal> open(ByteView file);

    ObjectView top() const { return object(topObject_); }
    ObjectView element(const ArrayView& array, std::size_t position) const {
        TARNWELL_CHECK(position < array.count);
        return entry(array, position);
    }
    /// Always a text.
    ObjectView key(const DictionaryView& dictionary, std::size_t position) const {
        TARNWELL_CHECK(position < dictionary.count);
        return entry(dictionary, position);
    }
    ObjectView value(const DictionaryView& dictionary, std::size_t position) const {
        TARNWELL_CHECK(position < dictionary.count);
        return entry(dictionary, static_cast<std::size_t>(dictionary.count) + position);
    }
    /// The value under a key, which must be ASCII; of equal keys the last counts.
    std::optional<ObjectView> find(const DictionaryView& dictionary, std::string_view key) const {
        for (auto position = static_cast<std::size_t>(dictionary.count); position-- > 0;)
            if (entry(dictionary, position).isText(key)) return value(dictionary, position);
        return std::nullopt;
    }
    /// The same; nothing too for a value of another type.
    template <typename T>
    std::optional<T> find(const DictionaryView& dictionary, std::string_view key) const {
        const auto value = find(dictionary, key);
        return value ? value->template as<T>() : std::nullopt;
    }

private:
    class Check;

    explicit PropertyListDocument(ByteView file) : file_(file) {}
    /// Where everything lies, checked against the file's size before anything is read.
    Refusal readLayout();
    Refusal checkTree() const;

    ObjectView object(std::size_t number) const {
        return {file_.data() + offsets_.at(objectsEnd_, number), objectsEnd_};
    }
    /// What a reference of a container refers to.
    ObjectView entry(const ReferencesView& references, std::size_t position) const {
        return object(static_cast<std::size_t>(references_.at(references.rest.data(), position)));
    }

    ByteView file_;
    format::NumberReader offsets_{1};
    format::NumberReader references_{1};
    std::size_t objectCount_ = 0;
    std::size_t topObject_ = 0;
    /// The end of the objects, which is the start of the offset table.
    const std::uint8_t* objectsEnd_ = nullptr;
};

/// The message for people.
std::string messageOf(Refusal refusal);

}  // namespace tarnwell::archive
