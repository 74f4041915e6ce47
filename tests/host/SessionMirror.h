#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "session/Session.h"

namespace tarnwell::host {

/// A client that lists everything once and then knows what it was told: it takes each change, drops what hangs under
/// what is gone, and begins again only where its anchor has expired.
class SessionMirror {
public:
    /// Where each item lies, and its name.
    using Tree = std::map<session::ItemIdentifier, std::pair<session::ItemIdentifier, std::string>>;

    SessionMirror(session::Session& session, session::ItemIdentifier container) : container_(std::move(container)) {
        begin(session);
    }
    /// Asks from the anchor that it has on.
    void catchUp(session::Session& session) {
        for (bool more = true; more;) {
            const auto batch = session.changes(container_, anchor_);
            if (!batch && batch.error().is(ErrorDomain::host, session::kSyncAnchorExpired)) return begin(session);
            ASSERT_TRUE(batch) << describe(batch.error());
            for (const session::Change& change : batch->changes) {
                if (change.item) {
                    add(*change.item);
                } else {
                    drop(change.identifier);
                }
            }
            anchor_ = batch->anchor;
            more = batch->moreComing;
        }
    }
    const Tree& tree() const { return tree_; }
    /// How often it began.
    int beginnings() const { return beginnings_; }

    /// What there is now.
    static Tree listed(session::Session& session) {
        SessionMirror mirror;
        mirror.list(session, session::kRootContainer);
        return mirror.tree_;
    }

private:
    SessionMirror() = default;
    void begin(session::Session& session) {
        ++beginnings_;
        const auto anchor = session.currentAnchor(container_);
        ASSERT_TRUE(anchor && *anchor);
        anchor_ = **anchor;
        tree_.clear();
        // Its own contents: a view may know of other libraries than the root.
        list(session, container_);
    }
    void list(session::Session& session, const session::ItemIdentifier& folder) {
        std::vector<session::ItemIdentifier> folders;
        std::optional<Bytes> page;
        do {
            auto listed = session.enumerate(folder, page);
            ASSERT_TRUE(listed) << folder << ": " << describe(listed.error());
            for (const session::Item& item : listed->items) {
                add(item);
                if (item.isFolder) folders.push_back(item.identifier);
            }
            page = std::move(listed->next);
        } while (page);
        for (const auto& one : folders) list(session, one);
    }
    void add(const session::Item& item) { tree_[item.identifier] = {item.parent, item.filename}; }
    void drop(const session::ItemIdentifier& gone) {
        tree_.erase(gone);
        std::vector<session::ItemIdentifier> below;
        for (const auto& [identifier, place] : tree_) {
            if (place.first == gone) below.push_back(identifier);
        }
        for (const auto& identifier : below) drop(identifier);
    }

    session::ItemIdentifier container_;
    Bytes anchor_;
    Tree tree_;
    int beginnings_ = 0;
};

}  // namespace tarnwell::host
