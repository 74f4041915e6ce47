#pragma once

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "session/Item.h"

namespace tarnwell::session {

/// One report of a request for changes.
struct Change {
    ItemIdentifier identifier;
    std::optional<Item> item;  ///< as it is now; nothing when it is gone
};

/// Changes in the order in which they have to be applied. A list never changes, and its copies are the same list: what
/// many clients are told is kept once, and brought into the form in which it is sent once. Any thread.
class ChangeList {
public:
    ChangeList() = default;
    ChangeList(std::vector<Change> changes) : content_(std::make_shared<Content>(std::move(changes))) {}
    ChangeList(std::initializer_list<Change> changes) : ChangeList(std::vector<Change>(changes)) {}

    const std::vector<Change>& all() const { return content_->changes; }
    auto begin() const { return all().begin(); }
    auto end() const { return all().end(); }
    std::size_t size() const { return all().size(); }
    bool empty() const { return all().empty(); }
    const Change& operator[](std::size_t at) const { return all().at(at); }

    /// For whoever goes on with them alone: copied only where the list has copies.
    std::vector<Change> take() && {
        return content_.use_count() == 1 ? std::move(content_->changes) : content_->changes;
    }

    /// What `make` made of the list when that was first asked for. A list is sent in one form only, so every caller has
    /// to give the same function.
    template <typename Form>
    const Form& inForm(Form (*make)(const std::vector<Change>&)) const {
        std::call_once(content_->making,
                       [&] { content_->form = std::make_shared<const Form>(make(content_->changes)); });
        return *static_cast<const Form*>(content_->form.get());
    }

private:
    struct Content {
        explicit Content(std::vector<Change> list) : changes(std::move(list)) {}
        std::vector<Change> changes;
        std::once_flag making;
        std::shared_ptr<const void> form;
    };
    std::shared_ptr<Content> content_ = std::make_shared<Content>(std::vector<Change>());
};

}  // namespace tarnwell::session
