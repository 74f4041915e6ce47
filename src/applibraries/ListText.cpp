#include "applibraries/ListText.h"

namespace tarnwell::applibraries {

std::string listText(const std::vector<std::string>& texts) {
    std::string list = "[";
    const char* separator = "";
    for (const std::string& text : texts) {
        list += separator + text;
        separator = ", ";
    }
    return list + "]";
}

}  // namespace tarnwell::applibraries
