#include "cli/output/OutputFile.h"

#include <fcntl.h>
#include <stdio.h>

#include "platform/base/SystemCall.h"
#include "platform/filesystem/PlainFile.h"
#include "platform/operations/NoReplace.h"

namespace tarnwell::cli {
namespace {

Result<void> takePlace(const std::string& temporary, const std::string& path, IfThere ifThere) {
    if (ifThere == IfThere::refuse) {
        return operations::renameWithoutReplacing(AT_FDCWD, temporary, AT_FDCWD, path, false);
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) return failedCall();
    return {};
}

}  // namespace

Result<void> writeOutputFile(const std::string& path, ByteView bytes, IfThere ifThere) {
    const std::size_t nameBegin = path.rfind('/') + 1;  // 0 where there is no slash
    const std::string name = path.substr(nameBegin);
    if (name.empty() || name == "." || name == "..") return failure(posixError(EISDIR));
    auto file = filesystem::PendingFile::create(path.substr(0, nameBegin) + "." + name, 0666);
    if (!file) return failure(file.error());
    if (auto written = file->write(bytes, filesystem::Durability::none); !written) return written;
    if (auto placed = takePlace(file->path(), path, ifThere); !placed) return placed;
    file->keep();
    return {};
}

}  // namespace tarnwell::cli
