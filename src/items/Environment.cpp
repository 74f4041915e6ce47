#include "items/Environment.h"

namespace tarnwell::items {

Relationship AppLibraryDirectory::relationshipToRoots(const URL& url) const {
    for (const URL& root : rootURLsForAppLibraries()) {
        Relationship found = relationship(root, url);
        if (found != Relationship::other) return found;
    }
    return Relationship::other;
}

}  // namespace tarnwell::items
