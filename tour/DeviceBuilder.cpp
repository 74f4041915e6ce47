#include "tour/DeviceBuilder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/base/Descriptor.h"

namespace tarnwell::tour {

void DeviceBuilder::failed(const char* operation, const std::string& relative) {
    const int code = errno;
    error_ = posixError(code, std::string("can't ") + operation + " " + path(relative));
}

void DeviceBuilder::folder(const std::string& relative) {
    if (error_) return;
    std::error_code code;
    std::filesystem::create_directories(path(relative), code);
    if (!code) return;
    errno = code.value();
    failed("make the folder", relative);
}

void DeviceBuilder::file(const std::string& relative, std::string_view content) {
    folder(std::filesystem::path(relative).parent_path());
    if (error_) return;
    const Descriptor file(open(path(relative).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!file.valid()) return failed("make the file", relative);
    while (!content.empty()) {
        const ssize_t count = write(file.get(), content.data(), content.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return failed("write", relative);
        content.remove_prefix(static_cast<std::size_t>(count));
    }
}

void DeviceBuilder::file(const std::string& relative, const Bytes& content) { file(relative, textOf(content)); }

bool DeviceBuilder::fileOfAnyName(const std::string& relative, std::string_view content) {
    if (error_) return true;
    file(relative, content);
    if (!error_ || (error_->code != EILSEQ && error_->code != EINVAL)) return true;
    error_.reset();
    return false;
}

void DeviceBuilder::link(const std::string& relative, const std::string& target) {
    folder(std::filesystem::path(relative).parent_path());
    if (error_) return;
    if (symlink(target.c_str(), path(relative).c_str()) != 0) failed("make the link", relative);
}

void DeviceBuilder::fifo(const std::string& relative) {
    if (error_) return;
    if (mkfifo(path(relative).c_str(), 0644) != 0) failed("make the pipe", relative);
}

void DeviceBuilder::attribute(const std::string& relative, const std::string& name,
                              const archive::ArchivedObject& value) {
    if (error_ || attributesRefused_) return;
    const Bytes bytes = archive::archiveRoot(value);
    if (lsetxattr(path(relative).c_str(), ("user." + name).c_str(), bytes.data(), bytes.size(), 0) == 0) return;
    if (errno == ENOTSUP || errno == EPERM || errno == ENOSPC) {
        attributesRefused_ = posixError(errno);
    } else {
        failed("set an attribute of", relative);
    }
}

}  // namespace tarnwell::tour
