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
/// Copies share one cache of resource values, as copies of a reference to one URL object would; a URL derived from
/// another (a parent, a child) starts with an empty cache. Two URLs are equal when scheme and path are.
/// Paths of file URLs are kept without a trailing slash, without empty and "." components; ".." is kept as it is.
class URL {
public:
    /// A file URL for the bytes of an absolute path; a path that does not begin with "/" gets one in front.
    static URL file(std::string_view path);
    /// Takes the text of any URL; "file:///…", "file://localhost/…" and "file:/…" are percent-decoded into a file URL
    /// (a query or fragment is left out), any other text, also a file of another host, is only carried.
    static URL parse(std::string_view text);

    bool isFileURL() const { return isFile_; }
    /// The path of a file URL; the text of any other.
    const std::string& path() const { return path_; }
    /// The last path component's bytes; "/" for the file URL "/". Lives as long as this URL.
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
    ResourceCache& cache() const { return *cache_; }

    friend bool operator==(const URL& a, const URL& b) { return a.isFile_ == b.isFile_ && a.path_ == b.path_; }

private:
    URL(bool isFile, std::string path);
    bool isFile_;
    std::string path_;
    std::shared_ptr<ResourceCache> cache_;
};

struct URLHash {
    std::size_t operator()(const URL& url) const { return std::hash<std::string>{}(url.path()); }
};

/// Where `item` stands to `directory`, by whole path components: the same place, below it, or elsewhere. Trailing
/// slashes do not count; ".." is a name like any other.
enum class Relationship { contains = 0, same = 1, other = 2 };
Relationship relationship(std::string_view directoryPath, std::string_view itemPath);
inline Relationship relationship(const URL& directory, const URL& item) {
    return relationship(directory.path(), item.path());
}

}  // namespace tarnwell
