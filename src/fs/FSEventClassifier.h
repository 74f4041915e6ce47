#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "fs/FSEventReader.h"

namespace tarnwell::fs {

/// What an item event comes to: the object as it is now, or its deletion, or nothing.
struct ClassifiedEvent {
    enum class Kind { dropped, changed, deleted };
    Kind kind = Kind::dropped;
    URL url;
    std::shared_ptr<const items::LocalItem> item;
};

/// Looks at the disk to say what an item event means for the monitored folders. Logs the reason of each event that is
/// dropped. Keeps no state; the rules are those of FSEventReader.
class FSEventClassifier {
public:
    FSEventClassifier(const FSEnvironment& environment, const std::vector<URL>& urls)
        : environment_(environment), urls_(urls) {}

    ClassifiedEvent classifyPath(const events::FileEvent& event, const std::string& path) const;
    ClassifiedEvent classifyDocumentIDChange(const std::string& path) const;

private:
    std::optional<ClassifiedEvent> classifyElsewhere(const events::FileEvent& event, const std::string& path) const;
    bool passes(const URL& url) const;
    bool liesInHiddenMonitoredFolder(const URL& url) const;
    /// True when a folder on the way from a monitored one to the object is a package, or is none any more.
    bool liesInPackage(const URL& url) const;
    bool hasSeveralNames(const URL& url) const;
    std::shared_ptr<items::LocalItem> itemAt(const URL& url) const;
    void drop(const URL& url, std::string_view reason) const;
    ClassifiedEvent dropMismatch(const URL& url, const std::string& found, const std::string& named) const;

    const FSEnvironment& environment_;
    const std::vector<URL>& urls_;
};

/// True when the URL lies below one of the folders; the folders themselves do not.
bool isBelowOneOf(const std::vector<URL>& folders, const URL& url);

/// True when a component below the root that holds the path begins with ".", except a ".Trash" right below the root. A
/// root's path ends with the first component "Documents"; a path without one is below no root and not hidden.
bool isHiddenBelowRoot(std::string_view path);

}  // namespace tarnwell::fs
