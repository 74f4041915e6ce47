#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/url/ResourceCache.h"

namespace tarnwell {

/// Names a place by the bytes of an absolute path, or is a URL of another scheme that only carries its text.
///
/// Copies share one cache of resource values, as copies of a reference to one URL object would, and cost no memory; a
/// URL derived from another (a parent, a child) starts with an empty cache. Two URLs are equal when scheme and path
/// are. One that was moved from may only be assigned to or destroyed. Paths of file URLs are kept without a trailing
/// slash, without empty and "." components; ".." is kept as it is.
class URL {
public:
    /// A file URL for the bytes of an absolute path; a path that does not begin with "/" gets one in front.
    static URL file(std::string_view path);
    /// The same for a path that is in the form above already, as one put together from such a path and a name is.
    static URL fileOfNormalPath(std::string path) { return URL(true, std::move(path)); }
    /// Takes the text of any URL; "file:///…", "file://localhost/…" and "file:/…" are percent-decoded into a file URL
    /// (a query or fragment is left out), any other text, also a file of another host, is only carried.
    static URL parse(std::string_view text);

    bool isFileURL() const { return shared_->isFile; }
    /// The path of a file URL; the text of any other. Lives as long as this URL or a copy.
    const std::string& path() const { return shared_->path; }
    /// The last path component's bytes; "/" for the file URL "/". Lives as long as this URL or a copy.
    std::string_view lastPathComponent() const;
    /// "/" first, then each component: "/a/b" gives "/", "a", "b". Empty for a URL that is no file URL.
    std::vector<std::string> pathComponents() const;
    /// The component below this place; one that holds slashes is joined as it stands and the whole brought to the form
    /// above, so that an absolute one goes below as well and an empty one gives this place.
    URL appending(std::string_view component) const;
    /// The parent folder's URL; "/" stays "/", and so does a URL that is no file URL. Its cache is empty, or the one
    /// that the maker of this URL kept for it (ResourceCache::parent).
    URL deletingLastPathComponent() const;
    /// The URL's text, percent-encoded: "file:///a%20b".
    std::string text() const;

    /// The values remembered for this URL object; never null.
    ResourceCache& cache() const { return shared_->given ? *shared_->given : shared_->own; }

    friend bool operator==(const URL& a, const URL& b) {
        return a.shared_ == b.shared_ || (a.isFileURL() == b.isFileURL() && a.path() == b.path());
    }

private:
    /// What copies share.
    struct Shared {
        const bool isFile;
        const std::string path;
        const std::shared_ptr<ResourceCache> given;  ///< by the maker of a URL that this one was derived from
        mutable ResourceCache own;
    };
    URL(bool isFile, std::string path, std::shared_ptr<ResourceCache> given = {});
    std::shared_ptr<const Shared> shared_;
};

/// Hash and equality under which a file URL is found by its path alone, without a URL being made.
struct URLHash {
    using is_transparent = void;
    std::size_t operator()(const URL& url) const { return (*this)(std::string_view(url.path())); }
    std::size_t operator()(std::string_view filePath) const { return std::hash<std::string_view>{}(filePath); }
};
struct URLEqual {
    using is_transparent = void;
    bool operator()(const URL& a, const URL& b) const { return a == b; }
    bool operator()(const URL& url, std::string_view filePath) const {
        return url.isFileURL() && url.path() == filePath;
    }
    bool operator()(std::string_view filePath, const URL& url) const { return (*this)(url, filePath); }
};

/// Where `item` stands to `directory`, by whole path components: the same place, below it, or elsewhere. Trailing
/// slashes do not count; ".." is a name like any other.
enum class Relationship { contains = 0, same = 1, other = 2 };
Relationship relationship(std::string_view directoryPath, std::string_view itemPath);
inline Relationship relationship(const URL& directory, const URL& item) {
    return relationship(directory.path(), item.path());
}

}  // namespace tarnwell
