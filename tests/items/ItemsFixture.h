#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "items/Environment.h"
#include "items/LocalItem.h"
#include "items/TWPFileObjectIdentifier.h"
#include "platform/archive/KeyedArchive.h"
#include "testing/CapturingLog.h"
#include "testing/FaultyFileSystem.h"
#include "testing/FaultyGenerationStore.h"
#include "testing/TemporaryDirectory.h"
#include "testing/TestDevice.h"

namespace tarnwell::testing {

/// Shows a line in a failed comparison.
inline void PrintTo(const CapturingLog::Line& line, std::ostream* out) {
    *out << "level " << static_cast<int>(line.level) << ": " << line.text;
}

}  // namespace tarnwell::testing

namespace tarnwell::items {

/// App libraries in the order in which a test adds them.
class ListedAppLibraries : public AppLibraryDirectory {
public:
    void add(URL root, registry::BundleRecordPtr record) {
        libraries_.emplace_back(std::move(root), std::move(record));
    }

    std::vector<URL> rootURLsForAppLibraries() const override;
    registry::BundleRecordPtr recordForURL(const URL& url, Relationship relationship) const override;
    registry::BundleRecordPtr recordForItemIdentifier(const std::string& identifier) const override;

private:
    std::vector<std::pair<URL, registry::BundleRecordPtr>> libraries_;
};

/// True when the type database of this process knows that a folder named "….docbundle" is a package; false where
/// update-mime-database, which teaches it that, is missing.
bool packagesAreKnown();

/// Lets death tests run in new processes, and removes the temporary folders that those leave behind.
class DyingProcesses {
public:
    DyingProcesses();
    ~DyingProcesses();
    DyingProcesses(const DyingProcesses&) = delete;
    DyingProcesses& operator=(const DyingProcesses&) = delete;

private:
    testing::TemporaryDirectory folder_;
    std::optional<std::string> before_;
};

/// A device with faults to plant, a log of the items' own and app libraries that a test lists.
class ItemsTest : public ::testing::Test {
protected:
    using Operation = testing::FaultyFileSystem::Operation;
    struct Library {
        URL root;
        std::string path;  ///< real path of its Documents folder
        registry::BundleRecordPtr record;
    };

    ItemsTest();

    /// An installed application with a container of that name, known as an app library.
    Library addLibrary(const std::string& name, std::optional<std::string> bundleIdentifier,
                       std::optional<std::string> localizedName = std::nullopt);
    /// The same without listing it as an app library; no container for nothing.
    registry::BundleRecordPtr installApplication(std::optional<std::string> containerPath,
                                                 std::optional<std::string> bundleIdentifier,
                                                 std::optional<std::string> localizedName);
    std::shared_ptr<LocalItem> item(const URL& url, const LocalItem::Arguments& arguments = {});
    std::string identifierOf(const URL& url);
    /// Makes it below the storage root and gives its identifier.
    std::string makeFile(const std::string& relative);
    std::string makeFolder(const std::string& relative);
    std::optional<URL> resolved(const std::string& identifier);
    /// The texts logged since the last call.
    std::vector<std::string> logged();
    std::vector<testing::CapturingLog::Line> loggedLines();
    void setArchivedAttribute(const std::string& path, const std::string& name, archive::ArchivedObject value);

    testing::TestDevice device;
    testing::CapturingLog log;
    ProgramLog programLog;
    testing::FaultyFileSystem files;
    testing::FaultyGenerationStore store;
    ListedAppLibraries libraries;
    Environment environment;
    TWPFileObjectIdentifier identifiers;

private:
    std::vector<std::optional<testing::FakeAppRegistry::Application>> applications_;
};

/// The file ID or document ID in an identifier.
std::uint64_t numberIn(const std::string& identifier);
using Texts = std::vector<std::string>;

}  // namespace tarnwell::items
