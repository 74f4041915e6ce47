#include "testing/FlatpakHome.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

namespace tarnwell::testing {
namespace {

constexpr const char* kArchitecture =
#if defined(__x86_64__)
    "x86_64";
#elif defined(__aarch64__)
    "aarch64";
#else
    "unknown";
#endif

void replaceAll(std::string& text, const std::string& word, const std::string& by) {
    for (auto at = text.find(word); at != std::string::npos; at = text.find(word, at + by.size())) {
        text.replace(at, word.size(), by);
    }
}

/// The library's loader stays where programs look for it; the others lie where it looks for them.
std::string commandToCopy(const std::string& program, const std::string& files) {
    return "set -e; cp -L '" + program + "' '" + files + "/bin'; for library in $(ldd '" + program +
           "' | grep -o '/[^ ]*'); do case \"$library\" in */ld-*) folder=\"${library%/*}\";; *) folder=/lib;; esac; "
           "mkdir -p '" +
           files + "'\"$folder\"; cp -Ln \"$library\" '" + files + "'\"$folder\"; done";
}

}  // namespace

FlatpakHome::FlatpakHome(std::string busAddress) : busAddress_(std::move(busAddress)) {
    for (const char* folder : {"home/Documents", "run", "etc", "runtime/files/bin", "runtime/files/lib"}) {
        makeDirectories(path(folder));
    }
    ::chmod(path("run").c_str(), 0700);
}

bool FlatpakHome::isFlatpakInstalled() { return std::system("command -v flatpak >/dev/null") == 0; }

std::map<std::string, std::string> FlatpakHome::variables() const {
    return {{"HOME", home()},
            {"XDG_RUNTIME_DIR", path("run")},
            // The machine's own folder is there for its file types.
            {"XDG_DATA_DIRS", path("share") + ":/usr/share"},
            {"FLATPAK_SYSTEM_DIR", path("system")},
            {"FLATPAK_SYSTEM_CACHE_DIR", path("cache")},
            {"FLATPAK_CONFIG_DIR", path("etc")}};
}

std::string FlatpakHome::begin(const std::vector<std::string>& programs) const {
    for (const std::string& program : programs) {
        if (std::system(commandToCopy(program, path("runtime/files")).c_str()) != 0) {
            return program + " cannot be copied";
        }
    }
    const std::string runtime = std::string("org.example.Platform/") + kArchitecture + "/1";
    writeFile(path("runtime/metadata"),
              "[Runtime]\nname=org.example.Platform\nruntime=" + runtime + "\nsdk=" + runtime + "\n");
    for (const char* arguments :
         {"build-export --disable-fsync --runtime --files=files REPOSITORY runtime 1",
          "remote-add --user --no-gpg-verify local REPOSITORY",
          "install --user -y --noninteractive --no-related local runtime/org.example.Platform"}) {
        if (auto trouble = run(arguments); !trouble.empty()) return trouble;
    }
    return {};
}

bool FlatpakHome::attempt(std::string arguments) const {
    replaceAll(arguments, "REPOSITORY", "'" + path("repository") + "'");
    std::string command = "cd '" + path(".") + "' && env -i PATH=\"$PATH\" LC_ALL=C TMPDIR='" + path("run") +
                          "' DBUS_SESSION_BUS_ADDRESS='" + busAddress_ +
                          "' DBUS_SYSTEM_BUS_ADDRESS='unix:path=" + path("none") + "'";
    for (const auto& [name, value] : variables()) command += " " + name + "='" + value + "'";
    command += " flatpak " + arguments + " >'" + path("printed") + "' 2>'" + path("complaints") + "' </dev/null";
    return std::system(command.c_str()) == 0;
}

std::string FlatpakHome::run(std::string arguments) const {
    if (attempt(arguments)) return {};
    return "flatpak " + arguments + "\n" + printed() + readFile(path("complaints"));
}

std::string FlatpakHome::printed() const { return readFile(path("printed")); }

std::string FlatpakHome::publish(const std::string& identifier, const std::string& name,
                                 const std::string& permissions) const {
    const std::string folder = path("build-" + identifier);
    std::filesystem::remove_all(folder);
    if (auto trouble =
            run("build-init '" + folder + "' " + identifier + " org.example.Platform org.example.Platform 1");
        !trouble.empty()) {
        return trouble;
    }
    makeDirectories(folder + "/files/share/applications");
    writeFile(folder + "/files/share/applications/" + identifier + ".desktop",
              "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=program %f\nMimeType=text/plain;\n");
    if (auto trouble = run("build-finish --command=program " + permissions + " '" + folder + "'"); !trouble.empty()) {
        return trouble;
    }
    return run("build-export --disable-fsync REPOSITORY '" + folder + "' 1");
}

std::string FlatpakHome::endInFavourOf(const std::string& identifier, const std::string& successor) const {
    const std::string ref = "app/" + identifier + "/" + kArchitecture + "/1";
    return run("build-commit-from --disable-fsync --force --end-of-life-rebase=" + identifier + "=" + successor +
               " --src-ref=" + ref + " REPOSITORY " + ref);
}

std::string FlatpakHome::install(const std::string& identifier) const {
    return run("install --user -y --noninteractive --no-related local " + identifier);
}

std::string FlatpakHome::update() const { return run("update --user -y --noninteractive --no-related"); }

}  // namespace tarnwell::testing
