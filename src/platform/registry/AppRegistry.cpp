#include "platform/registry/AppRegistry.h"

namespace tarnwell::registry {

std::string_view nameOf(Origin origin) {
    switch (origin) {
        case Origin::flatpak:
            return "flatpak";
        case Origin::snap:
            return "snap";
        case Origin::desktopEntry:
            return "desktop-entry";
    }
    return "unknown";
}

}  // namespace tarnwell::registry
