// What every registry of applications does, checked on the real one and on the one that tests of other layers use.

#include <gtest/gtest.h>

#include "testing/FakeAppRegistry.h"
#include "tests/registry/RegistryDevice.h"

namespace tarnwell::registry {
namespace {

/// An application as a test asks for it.
struct Installation {
    std::string identifier;
    std::string name = "";
    ApplicationType type = ApplicationType::user;
    bool supportsDocumentBrowser = false;
    bool opensInPlace = false;
    bool fileSharing = false;
    std::string container = "";  ///< below the device; "containers/<identifier>" when empty
};

std::string containerOf(const Installation& application) {
    return application.container.empty() ? "containers/" + application.identifier : application.container;
}

class RealRegistry {
public:
    void install(const Installation& application) {
        std::string lines = "X-Tarnwell-DataContainer=" + device_.path(containerOf(application)) + "\n";
        if (application.supportsDocumentBrowser) lines += "X-Tarnwell-SupportsDocumentBrowser=true\n";
        if (application.opensInPlace) lines += "Exec=viewer %U\nMimeType=text/plain;\n";
        if (application.fileSharing) lines += "X-Tarnwell-FileSharing=true\n";
        device_.write(desktopFile(application), RegistryDevice::entry(application.name, lines));
    }
    void uninstall(const Installation& application) { std::filesystem::remove(device_.path(desktopFile(application))); }
    AppRegistry& registry() { return device_.registry(); }
    RegistryDevice& device() { return device_; }

private:
    static std::string desktopFile(const Installation& application) {
        const bool ofUser = application.type == ApplicationType::user;
        return (ofUser ? "home/.local/share/applications/" : "usr/applications/") + application.identifier + ".desktop";
    }
    RegistryDevice device_;
};

class FakeRegistry {
public:
    void install(const Installation& application) {
        testing::FakeAppRegistry::Application fake;
        fake.bundleIdentifier = application.identifier;
        fake.containerPath = device_.path(containerOf(application));
        if (!application.name.empty()) fake.localizedName = application.name;
        fake.supportsDocumentBrowser = application.supportsDocumentBrowser;
        fake.opensInPlace = application.opensInPlace;
        fake.fileSharing = application.fileSharing;
        fake.type = application.type;
        applications_.emplace_back(std::move(fake));
        registry_.setApplications(applications_);
    }
    void uninstall(const Installation& application) {
        std::erase_if(applications_, [&](const auto& installed) {
            return installed->bundleIdentifier == application.identifier && installed->type == application.type;
        });
        registry_.setApplications(applications_);
    }
    AppRegistry& registry() { return registry_; }
    RegistryDevice& device() { return device_; }

private:
    RegistryDevice device_;
    testing::FakeAppRegistry registry_{device_.roots};
    std::vector<std::optional<testing::FakeAppRegistry::Application>> applications_;
};

template <typename T>
class AppRegistryContractTest : public ::testing::Test {
protected:
    void install(const Installation& application) {
        device().makeFolder(containerOf(application) + "/Documents");
        subject_.install(application);
    }
    AppRegistry& registry() { return subject_.registry(); }
    RegistryDevice& device() { return subject_.device(); }
    std::vector<BundleRecordPtr> records(ApplicationType type) {
        std::vector<BundleRecordPtr> result;
        registry().defaultWorkspace()->enumerateApplications(
            type, [&result](const BundleRecordPtr& record) { result.push_back(record); });
        return result;
    }
    Names identifiers(ApplicationType type) {
        Names result;
        for (const BundleRecordPtr& record : records(type)) result.push_back(*record->bundleIdentifier());
        return result;
    }
    T subject_;
};

using Registries = ::testing::Types<RealRegistry, FakeRegistry>;
TYPED_TEST_SUITE(AppRegistryContractTest, Registries);

TYPED_TEST(AppRegistryContractTest, ADeviceWithoutApplicationsListsNone) {
    EXPECT_TRUE(this->records(ApplicationType::user).empty());
    EXPECT_TRUE(this->records(ApplicationType::system).empty());
    EXPECT_EQ(this->registry().recordForBundleIdentifier("org.example.Notes"), nullptr);
}

TYPED_TEST(AppRegistryContractTest, EachTypeIsListedForItself) {
    this->install({.identifier = "org.example.A"});
    this->install({.identifier = "org.example.B", .type = ApplicationType::system});
    this->install({.identifier = "org.example.C"});
    EXPECT_EQ(this->identifiers(ApplicationType::user), (Names{"org.example.A", "org.example.C"}));
    EXPECT_EQ(this->identifiers(ApplicationType::system), Names{"org.example.B"});
}

TYPED_TEST(AppRegistryContractTest, TheUsersInstallationHidesTheSystems) {
    const Installation own{.identifier = "org.example.Notes", .name = "Mine"};
    this->install({.identifier = "org.example.Notes", .name = "Everybody's", .type = ApplicationType::system});
    this->install(own);
    EXPECT_EQ(this->identifiers(ApplicationType::user), Names{"org.example.Notes"});
    EXPECT_EQ(this->identifiers(ApplicationType::system), Names{});
    EXPECT_EQ(this->registry().recordForBundleIdentifier("org.example.Notes")->localizedName(), "Mine");

    this->subject_.uninstall(own);
    EXPECT_EQ(this->identifiers(ApplicationType::system), Names{"org.example.Notes"});
    const BundleRecordPtr record = this->registry().recordForBundleIdentifier("org.example.Notes");
    EXPECT_EQ(record->localizedName(), "Everybody's");
    EXPECT_EQ(record->type(), ApplicationType::system);
}

TYPED_TEST(AppRegistryContractTest, ARecordTellsWhatItsApplicationDeclares) {
    for (const bool browser : {false, true}) {
        for (const bool inPlace : {false, true}) {
            for (const bool sharing : {false, true}) {
                const std::string identifier =
                    std::string("org.example.A") + (browser ? "B" : "") + (inPlace ? "I" : "") + (sharing ? "S" : "");
                SCOPED_TRACE(identifier);
                this->install({.identifier = identifier,
                               .name = "Application",
                               .supportsDocumentBrowser = browser,
                               .opensInPlace = inPlace,
                               .fileSharing = sharing});
                const BundleRecordPtr record = this->registry().recordForBundleIdentifier(identifier);
                ASSERT_NE(record, nullptr);
                EXPECT_EQ(record->bundleIdentifier(), identifier);
                const auto values = record->infoValues({"UISupportsDocumentBrowser"});
                ASSERT_TRUE(values.has_value());
                EXPECT_EQ(values->contains("UISupportsDocumentBrowser"), browser);
                EXPECT_EQ(record->infoValues({"Other"}), (std::map<std::string, bool>{}));
                EXPECT_EQ(record->supportsOpeningDocumentsInPlace(), inPlace);
                EXPECT_EQ(record->isFileSharingEnabled(), sharing);
            }
        }
    }
}

TYPED_TEST(AppRegistryContractTest, AnApplicationWithoutANameHasNone) {
    this->install({.identifier = "org.example.Nameless"});
    EXPECT_EQ(this->registry().recordForBundleIdentifier("org.example.Nameless")->localizedName(), std::nullopt);
}

TYPED_TEST(AppRegistryContractTest, TheDataContainerIsThereOnceItsDocumentsAreAFolder) {
    this->subject_.install({.identifier = "org.example.Notes"});
    const BundleRecordPtr record = this->registry().recordForBundleIdentifier("org.example.Notes");
    EXPECT_EQ(record->dataContainerURL(), std::nullopt) << "no container";
    this->device().makeFolder("containers/org.example.Notes");
    EXPECT_EQ(record->dataContainerURL(), std::nullopt) << "no Documents";
    this->device().write("containers/org.example.Notes/Documents", "");
    EXPECT_EQ(record->dataContainerURL(), std::nullopt) << "Documents is a file";
    std::filesystem::remove(this->device().path("containers/org.example.Notes/Documents"));
    this->device().makeFolder("containers/org.example.Notes/Documents");
    const auto url = record->dataContainerURL();
    ASSERT_TRUE(url.has_value());
    EXPECT_EQ(*url, URL::file(this->device().path("containers/org.example.Notes")));
    EXPECT_TRUE(this->device().roots.locate(url->appending("Documents").path()).has_value());
}

TYPED_TEST(AppRegistryContractTest, DocumentsThatAreALinkMakeNoDataContainer) {
    this->device().makeFolder("elsewhere");
    this->device().makeFolder("containers/org.example.Notes");
    std::filesystem::create_symlink(this->device().path("elsewhere"),
                                    this->device().path("containers/org.example.Notes/Documents"));
    this->subject_.install({.identifier = "org.example.Notes"});
    EXPECT_EQ(this->registry().recordForBundleIdentifier("org.example.Notes")->dataContainerURL(), std::nullopt);
}

TYPED_TEST(AppRegistryContractTest, AnArchiveKeepsIdentifierContainerOriginAndType) {
    this->install({.identifier = "org.example.Notes", .type = ApplicationType::system});
    const BundleRecordPtr record = this->registry().recordForBundleIdentifier("org.example.Notes");
    const ArchivedBundleRecord expected{"org.example.Notes", this->device().path("containers/org.example.Notes"),
                                        Origin::desktopEntry, ApplicationType::system};
    EXPECT_EQ(record->archived(), expected);
    const BundleRecordPtr again = this->registry().recordFromArchive(record->archived());
    EXPECT_EQ(again->archived(), expected);
    EXPECT_EQ(again->bundleIdentifier(), "org.example.Notes");
    EXPECT_EQ(again->origin(), Origin::desktopEntry);
    EXPECT_EQ(again->type(), ApplicationType::system);
    EXPECT_EQ(again->dataContainerURL(), record->dataContainerURL());
    EXPECT_EQ(again->description(), record->description());
}

TYPED_TEST(AppRegistryContractTest, ARecordFromAnArchiveReadsItsNamesLive) {
    Installation application{.identifier = "org.example.Notes",
                             .name = "Notes",
                             .supportsDocumentBrowser = true,
                             .opensInPlace = true,
                             .fileSharing = true};
    this->install(application);
    const BundleRecordPtr record =
        this->registry().recordFromArchive({"org.example.Notes", this->device().path("containers/org.example.Notes"),
                                            Origin::desktopEntry, ApplicationType::user});
    EXPECT_EQ(record->localizedName(), "Notes");
    EXPECT_EQ(record->infoValues({"UISupportsDocumentBrowser"}),
              (std::map<std::string, bool>{{"UISupportsDocumentBrowser", true}}));
    EXPECT_TRUE(record->supportsOpeningDocumentsInPlace());
    EXPECT_TRUE(record->isFileSharingEnabled());

    this->subject_.uninstall(application);
    application.name = "Notebook";
    this->subject_.install(application);
    EXPECT_EQ(record->localizedName(), "Notebook");

    this->subject_.uninstall(application);
    EXPECT_EQ(record->localizedName(), std::nullopt);
    EXPECT_EQ(record->infoValues({"UISupportsDocumentBrowser"}), (std::map<std::string, bool>{}));
    EXPECT_FALSE(record->supportsOpeningDocumentsInPlace());
    EXPECT_FALSE(record->isFileSharingEnabled());
    EXPECT_TRUE(record->dataContainerURL().has_value()) << "the documents are still there";
}

TYPED_TEST(AppRegistryContractTest, AnArchiveMayLackIdentifierAndContainer) {
    const ArchivedBundleRecord archived{std::nullopt, std::nullopt, Origin::snap, ApplicationType::system};
    const BundleRecordPtr record = this->registry().recordFromArchive(archived);
    EXPECT_EQ(record->bundleIdentifier(), std::nullopt);
    EXPECT_EQ(record->dataContainerURL(), std::nullopt);
    EXPECT_EQ(record->localizedName(), std::nullopt);
    EXPECT_EQ(record->archived(), archived);
    EXPECT_EQ(record->description(), "(null) (snap) at \"\"");
}

TYPED_TEST(AppRegistryContractTest, RecordsOutliveWhatIsInstalled) {
    const Installation application{.identifier = "org.example.Notes", .name = "Notes"};
    this->install(application);
    const BundleRecordPtr record = this->registry().recordForBundleIdentifier("org.example.Notes");
    this->subject_.uninstall(application);
    EXPECT_EQ(record->localizedName(), "Notes");
    EXPECT_EQ(this->registry().recordForBundleIdentifier("org.example.Notes"), nullptr);
}

}  // namespace
}  // namespace tarnwell::registry
