#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/files/FileSystem.h"

namespace tarnwell::testing {

/// A file system that does what the real one behind it does, except where a test plants a fault. Counts every call.
/// Faults of one operation are tried in the order planted; the first that applies to a call decides it. Any thread may
/// call it; faults are planted while no other thread uses it.
class FaultyFileSystem : public files::FileSystem {
public:
    enum class Operation : std::uint8_t {
        resourceValue,
        setResourceValue,
        isFolder,
        openEventOnly,
        deviceID,
        attributeList,
        pathOfFileID,
        stat,
        isReachable,
        getAttribute,
        setAttribute,
        removeAttribute,
        walk,
        createDirectory,
    };
    static constexpr std::size_t kOperations = 14;
    static constexpr unsigned kAlways = std::numeric_limits<unsigned>::max();

    explicit FaultyFileSystem(files::FileSystem& real) : real_(real) {}

    /// Lets `times` calls fail with the error, after `after` further calls that are not counted against it. For the two
    /// operations that return a bool, failing means false.
    void fail(Operation operation, Error error, unsigned times = kAlways, unsigned after = 0);
    void fail(Operation operation, int posixCode, unsigned times = kAlways, unsigned after = 0) {
        fail(operation, posixError(posixCode), times, after);
    }
    /// Every read of that resource value fails / gives this.
    void failResource(files::ResourceKey key, Error error);
    void answerResource(files::ResourceKey key, files::ResourceValue value);
    /// Link count of every `stat` that succeeds; what the file system behind it says, when nothing.
    void answerLinkCount(std::optional<std::uint32_t> linkCount);
    /// Lets documents look as if none of them had a document ID, in resource values and in attribute lists.
    void withholdDocumentIDs();
    /// Runs `action` at the beginning of one call, after `after` further ones: what another process may do meanwhile.
    void meanwhile(Operation operation, std::function<void()> action, unsigned after = 0);
    /// Takes all faults away and sets the counts to 0.
    void clear();
    /// Calls since the beginning or `clear`, failed ones included.
    std::uint64_t calls(Operation operation) const;
    std::uint64_t calls() const;

    Result<files::ResourceValue> resourceValue(const URL& url, files::ResourceKey key) override;
    Result<void> setResourceValue(const URL& url, files::ResourceKey key, std::uint64_t value) override;
    bool isFolder(const URL& url) override;
    Result<Descriptor> openEventOnly(const URL& url) override;
    Result<DeviceID> deviceID(const Descriptor& descriptor) override;
    Result<files::ObjectAttributes> attributeList(const Descriptor& descriptor) override;
    Result<URL> pathOfFileID(FileID fileID, DeviceID device) override;
    Result<files::FileStatus> stat(const URL& url) override;
    bool isReachable(const URL& url) override;
    Result<std::size_t> getAttribute(const URL& url, const std::string& name, std::span<std::uint8_t> buffer) override;
    Result<void> setAttribute(const Descriptor& descriptor, const std::string& name, ByteView value) override;
    Result<void> removeAttribute(const Descriptor& descriptor, const std::string& name) override;
    Result<std::unique_ptr<files::DirectoryWalker>> walk(const URL& folder, unsigned options,
                                                         files::WalkErrorHandler errorHandler) override;
    Result<void> createDirectory(const URL& url) override;

private:
    struct Fault {
        Operation operation;
        unsigned after;
        unsigned times;
        std::optional<Error> error;
        std::function<void()> action;
    };
    /// Counts the call, runs what happens meanwhile and gives the error that the call is to fail with.
    std::optional<Error> entered(Operation operation);

    files::FileSystem& real_;
    mutable std::mutex mutex_;
    std::vector<Fault> faults_;
    std::map<files::ResourceKey, Result<files::ResourceValue>> resources_;
    std::optional<std::uint32_t> linkCount_;
    bool withholdsDocumentIDs_ = false;
    std::array<std::uint64_t, kOperations> calls_{};
};

}  // namespace tarnwell::testing
