#include <unistd.h>

#include <cstdlib>
#include <map>

#include "tests/mirror/Layout.h"
#include "tests/mirror/Message.h"
#include "tests/mirror/Roles.h"

namespace tarnwell::mirror {

testing::RandomChanges::Options changesBelow(const std::string& links, const std::string& finding) {
    testing::RandomChanges::Options options{.mostNames = 600, .outside = links, .areas = {}, .isWide = true};
    // A name that a file gets outside of the storage, and what is written under it, is hinted at by nothing.
    if (finding != kComparing) options.areaWithoutHardLinks = kOutside;
    for (const RootFolder& root : kRoots) options.areas.emplace_back(root.path);
    options.areas.emplace_back(kOutside);
    return options;
}

int changeFiles(const std::string& root, const std::string& seed, const std::string& links,
                const std::string& finding) {
    testing::RandomChanges changes(root, std::strtoull(seed.c_str(), nullptr, 10), changesBelow(links, finding));
    while (const auto message = receive(STDIN_FILENO)) {
        const auto steps = std::strtoul(message->at(0).c_str(), nullptr, 10);
        const auto rest = static_cast<useconds_t>(std::strtoul(message->at(1).c_str(), nullptr, 10));
        Message done;
        for (unsigned long i = 0; i < steps; ++i) {
            done.push_back(changes.step());
            if (rest > 0) ::usleep(rest);
        }
        if (!send(STDOUT_FILENO, done)) return 1;
    }
    return 0;
}

host::Settings settingsOf(const std::string& home) {
    const std::map<std::string, std::string> variables{{"HOME", home}, {"XDG_DATA_DIRS", home + "/system"}};
    const auto lookup = [&](const char* name) -> std::optional<std::string> {
        const auto found = variables.find(name);
        return found == variables.end() ? std::nullopt : std::optional(found->second);
    };
    return host::Settings::from(lookup, std::nullopt).value();
}

}  // namespace tarnwell::mirror
