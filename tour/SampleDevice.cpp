#include "tour/SampleDevice.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>

#include "tour/DeviceBuilder.h"
#include "tour/Png.h"

namespace tarnwell::tour {
namespace {

using archive::ArchivedArray;
using archive::ArchivedObject;
using archive::Integer;

constexpr std::string_view kMarkerText = "A sample device of Tarnwell. The tour removes and makes this folder anew.\n";
const std::string kData = "home/.local/share/";
const std::string kNotes = "home/.var/app/org.example.Notes/Documents/";

Date dateOf(std::chrono::year_month_day day, std::chrono::seconds time) { return std::chrono::sys_days(day) + time; }

bool holdsMarker(const std::filesystem::path& folder) {
    std::error_code code;
    const auto status = std::filesystem::symlink_status(folder / kMarkerName, code);
    if (!std::filesystem::is_regular_file(status)) return false;
    std::ifstream file(folder / kMarkerName, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {}) == kMarkerText;
}

/// Empties the folder of an earlier device, the marker last, so that an interrupted removal can be taken up again.
Result<void> removeEarlierDevice(const std::filesystem::path& folder) {
    std::error_code code;
    if (std::filesystem::is_empty(folder, code) && !code) return {};
    if (code) return failure(posixError(code.value(), "can't read " + folder.string()));
    if (!holdsMarker(folder)) {
        return failure(posixError(ENOTEMPTY, folder.string() + " is not a sample device: it is left as it is; " +
                                                 "name an empty folder or one that does not exist"));
    }
    std::vector<std::filesystem::path> entries;
    for (auto entry = std::filesystem::directory_iterator(folder, code);
         !code && entry != std::filesystem::directory_iterator(); entry.increment(code)) {
        if (entry->path().filename() != kMarkerName) entries.push_back(entry->path());
    }
    for (const auto& entry : entries) {
        if (!code) std::filesystem::remove_all(entry, code);
    }
    if (!code) std::filesystem::remove(folder / kMarkerName, code);
    if (code) return failure(posixError(code.value(), "can't remove what is in " + folder.string()));
    return {};
}

std::string svgIcon(const std::string& colour) {
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"64\" height=\"64\" viewBox=\"0 0 64 64\">\n"
           "  <rect x=\"8\" y=\"4\" width=\"48\" height=\"56\" rx=\"6\" fill=\"" +
           colour +
           "\"/>\n"
           "  <path d=\"M18 20h28M18 32h28M18 44h18\" stroke=\"#fff\" stroke-width=\"4\" stroke-linecap=\"round\"/>\n"
           "</svg>\n";
}

std::string desktopEntry(const std::string& english, const std::string& german, const std::string& icon,
                         const std::string& lines) {
    return "[Desktop Entry]\nType=Application\nName=" + english + "\nName[de]=" + german + "\nIcon=" + icon + "\n" +
           lines;
}

/// A Flatpak as an installation lays it out: exports are links into the deployed version.
void installFlatpak(DeviceBuilder& device, const std::string& installation, const std::string& identifier,
                    const std::string& desktopFile, const std::string& context) {
    const std::string app = installation + "/app/" + identifier;
    const std::string deployed = app + "/x86_64/stable/1";
    const std::string desktop = "share/applications/" + identifier + ".desktop";
    device.file(deployed + "/metadata", "[Application]\nname=" + identifier + "\n\n[Context]\n" + context);
    device.file(deployed + "/export/" + desktop, desktopFile);
    device.link(app + "/current", "x86_64/stable");
    device.link(app + "/x86_64/stable/active", "1");
    device.link(installation + "/exports/" + desktop,
                "../../../app/" + identifier + "/current/active/export/" + desktop);
    device.folder("home/.var/app/" + identifier + "/Documents");
}

std::string flatpakExec(const std::string& identifier) {
    return "Exec=flatpak run --file-forwarding " + identifier +
           " @@u %U @@\nMimeType=text/markdown;\nX-Flatpak=" + identifier + "\n";
}

void installApplications(DeviceBuilder& device) {
    const std::string icons = "exports/share/icons/hicolor/";
    installFlatpak(device, kData + "flatpak", "org.example.Notes",
                   desktopEntry("Notes", "Notizen", "org.example.Notes", flatpakExec("org.example.Notes")),
                   "persistent=Documents;\n");
    device.file(kData + "flatpak/" + icons + "scalable/apps/org.example.Notes.svg", svgIcon("#d98e04"));

    installFlatpak(device, "system/flatpak", "org.example.Sketches",
                   desktopEntry("Sketches", "Skizzen", "org.example.Sketches", flatpakExec("org.example.Sketches")),
                   "persistent=Documents;\n");
    for (const unsigned side : {48u, 64u, 96u}) {
        const std::string size = std::to_string(side);
        device.file("system/flatpak/" + icons + size + "x" + size + "/apps/org.example.Sketches.png",
                    pngIcon(side, {.red = 40, .green = 120, .blue = 200}));
    }

    // Opens documents, but its sandbox keeps none of them: it gets no library.
    installFlatpak(device, kData + "flatpak", "org.example.Viewer",
                   desktopEntry("Viewer", "Betrachter", "org.example.Viewer", flatpakExec("org.example.Viewer")),
                   "filesystems=xdg-pictures;\n");

    device.file("system/snapd/desktop/applications/scanner_scanner.desktop",
                desktopEntry("Scanner", "Scanner", "/snap/scanner/current/icon.png",
                             "Exec=/snap/bin/scanner %F\nMimeType=application/pdf;\nX-SnapInstanceName=scanner\n"));
    device.file("home/snap/scanner/7/Documents/Receipt.pdf", "%PDF-1.4\n% a receipt\n");
    device.link("home/snap/scanner/current", "7");

    device.file(kData + "applications/net.example.Maps.desktop",
                desktopEntry("Maps", "Karten", device.path("home/Apps/Maps/icon.png"),
                             "Exec=maps\nX-Tarnwell-DataContainer=~/Apps/Maps\n"
                             "X-Tarnwell-SupportsDocumentBrowser=true\n"));
    device.file("home/Apps/Maps/icon.png", pngIcon(64, {.red = 60, .green = 150, .blue = 70}));
    device.file("home/Apps/Maps/Documents/Routes/Harbour.gpx", "<gpx version=\"1.1\" creator=\"Maps\"/>\n");
    device.file("home/.var/app/org.example.Sketches/Documents/Boat.svg", svgIcon("#2878c8"));
}

void fillNotes(DeviceBuilder& device) {
    device.file(kNotes + "Groceries.md", "# Groceries\n\n- bread\n- apples\n");
    device.attribute(kNotes + "Groceries.md", "com.vellum.metadata:_kMDItemUserTags",
                     {ArchivedArray{{std::string("Home")}, {std::string("Weekly")}}});
    device.attribute(kNotes + "Groceries.md", "com.vellum.favorite-rank.number#PS", {Integer::fromUnsigned(12)});
    device.attribute(kNotes + "Groceries.md", "com.vellum.lastuseddate#PS",
                     {dateOf(std::chrono::May / 17 / 2024, std::chrono::hours(9))});
    device.file(kNotes + "Journal/2024/March/Trip.md", "# A trip to the harbour\n");
    device.file(kNotes + "Journal/2024/April/Garden.md", "# Garden\n");
    device.folder(kNotes + "Lists");
    device.file(kNotes + "Harbour.sketchbundle/content.json", "{\"strokes\": []}\n");
    device.file(kNotes + "Harbour.sketchbundle/preview.png", pngIcon(32, {.red = 200, .green = 90, .blue = 40}));
    device.file(kNotes + ".draft.md", "not shown in a listing\n");
    device.file(kNotes + "Inbox/From elsewhere.md", "arrived, not yet taken\n");
    device.file(kNotes + ".Trash/Old list.md", "- done\n");
    device.attribute(kNotes + ".Trash/Old list.md", "com.vellum.trash.time#PS",
                     {dateOf(std::chrono::June / 2 / 2024, std::chrono::hours(18))});
    device.attribute(kNotes + ".Trash/Old list.md", "com.vellum.trash.putback#PS", {std::string("Lists/Old list.md")});
    device.link(kNotes + "Latest.md", "Journal/2024/March/Trip.md");
    device.file("home/private.txt", "outside of every library\n");
    device.link(kNotes + "Outside.txt", "../../../../private.txt");
    device.fifo(kNotes + "Pipe");
}

void fillDocuments(DeviceBuilder& device, std::vector<std::string>& remarks) {
    const std::string documents = "home/Documents/";
    device.file(documents + "Letter.txt", "Dear Ada,\n");
    device.file(documents + "Names/two\nlines.txt", "a name of two lines\n");
    if (!device.fileOfAnyName(documents + "Names/caf\xE9.txt", "a name that is not UTF-8\n")) {
        remarks.push_back("The file system takes no name that is not UTF-8, so there is none here.");
    }
    device.file(documents +
                    "Names/Gr\xC3\xB6\xC3\x9F"
                    "e & Ma\xC3\x9F.txt",
                "a name beyond ASCII\n");
    for (unsigned i = 1; i <= kManyEntries; ++i) {
        std::string number = std::to_string(i);
        number.insert(0, 3 - number.size(), '0');
        device.file(documents + "Many/Page " + number + ".txt", "page " + number + "\n");
    }
}

/// Folders of that name are packages: documents that happen to be folders.
void declarePackageType(DeviceBuilder& device, std::vector<std::string>& remarks) {
    device.file(kData + "mime/packages/org.example.Notes.xml",
                "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                "<mime-info xmlns=\"http://www.freedesktop.org/standards/shared-mime-info\">\n"
                "  <mime-type type=\"application/x-sketchbundle\">\n"
                "    <comment>sketch bundle</comment>\n"
                "    <comment xml:lang=\"de\">Skizzenmappe</comment>\n"
                "    <sub-class-of type=\"inode/directory\"/>\n"
                "    <glob pattern=\"*.sketchbundle\"/>\n"
                "  </mime-type>\n"
                "</mime-info>\n");
    if (device.error()) return;
    const auto updated = run({"update-mime-database", device.path(kData + "mime")}, {}, Output::discarded);
    if (!updated || updated->status != 0) {
        remarks.push_back("update-mime-database " + std::string(updated ? "failed" : "is not installed") +
                          ", so Harbour.sketchbundle is a plain folder here, not a package.");
    }
}

}  // namespace

EnvironmentChanges SampleDevice::environment() const {
    return {{"HOME", root + "/home"},
            {"XDG_DATA_HOME", root + "/home/.local/share"},
            {"XDG_STATE_HOME", root + "/home/.local/state"},
            {"XDG_CACHE_HOME", root + "/home/.cache"},
            {"XDG_CONFIG_HOME", root + "/home/.config"},
            {"XDG_RUNTIME_DIR", root + "/run"},
            // The machine's own folder is there for its file types.
            {"XDG_DATA_DIRS", root + "/system/share:" + root + "/system/snapd/desktop:/usr/share"},
            {"FLATPAK_USER_DIR", root + "/home/.local/share/flatpak"},
            {"FLATPAK_SYSTEM_DIR", root + "/system/flatpak"},
            {"FLATPAK_CONFIG_DIR", root + "/system/etc/flatpak"},
            // A service of the machine's session has other documents.
            {"DBUS_SESSION_BUS_ADDRESS", std::nullopt},
            {"TARNWELL_STORAGE", std::nullopt}};
}

Result<SampleDevice> makeSampleDevice(const std::string& folder) {
    std::error_code code;
    std::filesystem::create_directories(folder, code);
    if (code) return failure(posixError(code.value(), "can't make the folder " + folder));
    const std::filesystem::path root = std::filesystem::canonical(folder, code);
    if (code) return failure(posixError(code.value(), "can't find the folder " + folder));
    if (auto removed = removeEarlierDevice(root); !removed) return failure(removed.error());

    SampleDevice sample{.root = root.string(), .remarks = {}};
    DeviceBuilder device(sample.root);
    device.file(kMarkerName, kMarkerText);
    device.folder("run");
    device.folder("system/share/applications");
    device.folder("system/etc/flatpak");
    if (!device.error() && chmod(device.path("run").c_str(), 0700) != 0) {
        return failure(posixError(errno, "can't close the folder " + device.path("run")));
    }
    installApplications(device);
    fillNotes(device);
    fillDocuments(device, sample.remarks);
    declarePackageType(device, sample.remarks);
    if (device.error()) return failure(*device.error());
    if (device.attributesRefused()) {
        sample.remarks.push_back("The file system of " + sample.root + " refuses user attributes (" +
                                 describe(*device.attributesRefused()) +
                                 "): tags, ranks, dates of use and the bookkeeping of the trash are missing here.");
    }
    return sample;
}

}  // namespace tarnwell::tour
