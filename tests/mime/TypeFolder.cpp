#include "tests/mime/TypeFolder.h"

#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace tarnwell::mime {

TypeFolder::TypeFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "tarnwell-types-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        std::perror(name.c_str());
        std::abort();
    }
    path_ = name;
}

TypeFolder::~TypeFolder() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
    if (error) std::fprintf(stderr, "%s is left behind: %s\n", path_.c_str(), error.message().c_str());
}

std::filesystem::path TypeFolder::write(const std::filesystem::path& relative, std::string_view content) const {
    const std::filesystem::path path = path_ / relative;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream stream(path, std::ios::binary);
    stream << content;
    stream.close();
    if (stream.fail()) {
        std::perror(path.c_str());
        std::abort();
    }
    return path.parent_path();
}

}  // namespace tarnwell::mime
