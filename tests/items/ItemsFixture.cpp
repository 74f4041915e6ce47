#include "ItemsFixture.h"

#include <cstdlib>

#include "platform/base/Result.h"

namespace tarnwell::items {

std::vector<URL> ListedAppLibraries::rootURLsForAppLibraries() const {
    std::vector<URL> roots;
    for (const auto& [root, record] : libraries_) roots.push_back(root);
    return roots;
}

registry::BundleRecordPtr ListedAppLibraries::recordForURL(const URL& url, Relationship wanted) const {
    for (const auto& [root, record] : libraries_)
        if (relationship(root, url) == wanted) return record;
    return nullptr;
}

registry::BundleRecordPtr ListedAppLibraries::recordForItemIdentifier(const std::string& identifier) const {
    for (const auto& [root, record] : libraries_)
        if (record && appLibraryIdentifier(*record) == identifier) return record;
    return nullptr;
}

bool packagesAreKnown() {
    static const testing::TemporaryDirectory data;
    static const bool known = [] {
        testing::makeDirectories(data.path("mime/packages"));
        testing::writeFile(data.path("mime/packages/test.xml"), R"(<?xml version="1.0" encoding="UTF-8"?>
<mime-info xmlns="http://www.freedesktop.org/standards/shared-mime-info">
  <mime-type type="application/x-test-bundle">
    <sub-class-of type="inode/directory"/>
    <glob pattern="*.docbundle"/>
  </mime-type>
</mime-info>
)");
        ::setenv("XDG_DATA_HOME", data.path().c_str(), 1);
        return std::system(("update-mime-database " + data.path("mime") + " >/dev/null 2>&1").c_str()) == 0;
    }();
    return known;
}

namespace {
/// Before the first device looks a type up, since a process reads the database once.
struct PackageTypes : ::testing::Environment {
    void SetUp() override { packagesAreKnown(); }
};
[[maybe_unused]] ::testing::Environment* const packageTypes =
    ::testing::AddGlobalTestEnvironment(new PackageTypes);  // owned by the test program
}  // namespace

DyingProcesses::DyingProcesses() {
    if (const char* value = std::getenv("TARNWELL_TEST_DIR")) before_ = value;
    ::setenv("TARNWELL_TEST_DIR", folder_.path().c_str(), 1);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
}

DyingProcesses::~DyingProcesses() {
    if (before_)
        ::setenv("TARNWELL_TEST_DIR", before_->c_str(), 1);
    else
        ::unsetenv("TARNWELL_TEST_DIR");
}

ItemsTest::ItemsTest()
    : programLog(log, device.pool()),
      files(device.files()),
      store(device.generationStore()),
      environment{programLog, files, store, device.providerManager(), &libraries},
      identifiers(environment) {}

registry::BundleRecordPtr ItemsTest::installApplication(std::optional<std::string> containerPath,
                                                        std::optional<std::string> bundleIdentifier,
                                                        std::optional<std::string> localizedName) {
    testing::FakeAppRegistry::Application application;
    application.bundleIdentifier = std::move(bundleIdentifier);
    application.containerPath = std::move(containerPath);
    application.localizedName = std::move(localizedName);
    applications_.emplace_back(std::move(application));
    device.registry().setApplications(applications_);
    registry::BundleRecordPtr last;
    device.registry().enumerateApplications(registry::ApplicationType::user,
                                            [&](const registry::BundleRecordPtr& record) { last = record; });
    TARNWELL_CHECK(last != nullptr);
    return last;
}

ItemsTest::Library ItemsTest::addLibrary(const std::string& name, std::optional<std::string> bundleIdentifier,
                                         std::optional<std::string> localizedName) {
    std::string container = device.makeContainer(name);
    auto record = installApplication(container, std::move(bundleIdentifier), std::move(localizedName));
    auto containerURL = record->dataContainerURL();
    TARNWELL_CHECK(containerURL.has_value());
    Library library{containerURL->appending("Documents"), container + "/Documents", record};
    libraries.add(library.root, record);
    return library;
}

std::shared_ptr<LocalItem> ItemsTest::item(const URL& url, const LocalItem::Arguments& arguments) {
    return LocalItem::initWithURL(environment, url, arguments);
}

std::string ItemsTest::identifierOf(const URL& url) { return identifiers.itemIdentifier(url).value_or("(none)"); }

std::string ItemsTest::makeFile(const std::string& relative) {
    testing::writeFile(device.path(relative), relative);
    return identifierOf(device.url(relative));
}

std::string ItemsTest::makeFolder(const std::string& relative) {
    testing::makeDirectories(device.path(relative));
    return identifierOf(device.url(relative));
}

std::optional<URL> ItemsTest::resolved(const std::string& identifier) {
    return identifiers.fileURLWithItemIdentifier(identifier);
}

std::vector<std::string> ItemsTest::logged() {
    auto texts = log.texts();
    log.clear();
    return texts;
}

std::vector<testing::CapturingLog::Line> ItemsTest::loggedLines() {
    auto lines = log.lines();
    log.clear();
    return lines;
}

void ItemsTest::setArchivedAttribute(const std::string& path, const std::string& name, archive::ArchivedObject value) {
    testing::setUserAttribute(path, name, textOf(archive::archiveRoot(value)));
}

std::uint64_t numberIn(const std::string& identifier) { return std::stoull(identifier.substr(4)); }

}  // namespace tarnwell::items
