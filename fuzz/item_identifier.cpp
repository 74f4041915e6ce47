#include <fcntl.h>
#include <cerrno>

#include <algorithm>
#include <string>

#include "fuzz/Fuzz.h"
#include "items/TWPFileObjectIdentifier.h"

using namespace tarnwell;

namespace {

const URL kStorage = URL::file("/storage");
constexpr DeviceID kDevice{517};

/// A device on which the object with file ID n stands at /storage/n, and document n has file ID n. Nothing but
/// resolving an identifier can be asked of it.
class NumberedFiles : public files::FileSystem {
public:
    Result<Descriptor> openEventOnly(const URL&) override {
        return Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    Result<DeviceID> deviceID(const Descriptor&) override { return kDevice; }
    Result<URL> pathOfFileID(FileID fileID, DeviceID device) override {
        TARNWELL_CHECK(device == kDevice);
        if (fileID == FileID{0}) return failure(posixError(ENOENT));
        return kStorage.appending(std::to_string(raw(fileID)));
    }

    Result<files::ResourceValue> resourceValue(const URL&, files::ResourceKey) override { return unasked(); }
    Result<void> setResourceValue(const URL&, files::ResourceKey, std::uint64_t) override { return unasked(); }
    bool isFolder(const URL&) override { fatal("asked whether something is a folder"); }
    Result<files::ObjectAttributes> attributeList(const Descriptor&) override { return unasked(); }
    Result<files::FileStatus> stat(const URL&) override { return unasked(); }
    bool isReachable(const URL&) override { fatal("asked whether something can be reached"); }
    Result<std::size_t> getAttribute(const URL&, const std::string&, std::span<std::uint8_t>) override {
        return unasked();
    }
    Result<void> setAttribute(const Descriptor&, const std::string&, ByteView) override { return unasked(); }
    Result<void> removeAttribute(const Descriptor&, const std::string&) override { return unasked(); }
    Result<std::unique_ptr<files::DirectoryWalker>> walk(const URL&, unsigned, files::WalkErrorHandler) override {
        return unasked();
    }
    Result<void> createDirectory(const URL&) override { return unasked(); }

private:
    [[noreturn]] static std::unexpected<Error> unasked() {
        fatal("resolving an identifier asked for more than places");
    }
};

class NumberedDocuments : public store::GenerationStoreManager {
public:
    Result<DocumentID> getOrAllocateDocumentID(const Descriptor&) override {
        fatal("resolving allocated a document ID");
    }
    Result<std::optional<DocumentID>> permanentStorage(const URL&) override {
        fatal("resolving asked for the permanent storage of a URL");
    }
    Result<FileID> fileIDForDocumentID(DocumentID documentID, DeviceID device) override {
        TARNWELL_CHECK(device == kDevice);
        return FileID{raw(documentID)};
    }
    URL documentStorageFolder() const override { return kStorage; }
};

class SilentManager : public hostframework::ProviderManager {
public:
    void signalEnumeratorForContainer(const std::string&, hostframework::Completion) override {
        fatal("resolving signalled");
    }
    void deleteSearchableItemsWithDomainIdentifiers(const std::vector<std::string>&,
                                                    hostframework::Completion) override {
        fatal("resolving deleted from the index");
    }
    URL documentStorageURL() const override { return kStorage; }
    Relationship relationshipToDocumentStorage(const URL& url) const override { return relationship(kStorage, url); }
};

class CountingLog : public log::Log {
public:
    std::size_t count = 0;

protected:
    void emit(log::Level, std::string_view) override { ++count; }
};

void checkChangePath(std::string_view path) {
    const auto change = items::parseDocumentIDChangePath(path);
    if (!change) return;
    const std::string canonical = "/.docid/517/changed/" + std::to_string(change->documentID) +
                                  "/src=" + std::to_string(change->source) +
                                  ",dst=" + std::to_string(change->destination);
    const auto again = items::parseDocumentIDChangePath(canonical);
    TARNWELL_CHECK(again && again->documentID == change->documentID && again->source == change->source &&
                   again->destination == change->destination);
    TARNWELL_CHECK(!items::parseDocumentIDChangePath(canonical + "/"));
}

void checkIdentifier(const std::string& identifier) {
    CountingLog sink;
    // The log needs a pool for its sections, of which resolving opens none: one pool does for all calls.
    static const auto pool = dispatch::ThreadPool::create();
    items::ProgramLog log(sink, pool);
    NumberedFiles files;
    NumberedDocuments documents;
    SilentManager manager;
    const items::Environment environment{log, files, documents, manager};
    const items::TWPFileObjectIdentifier identifiers(environment);

    const auto url = identifiers.fileURLWithItemIdentifier(identifier);
    // A refusal says why, in one line; an answer says nothing.
    TARNWELL_CHECK(sink.count == (url ? 0u : 1u));
    if (!url || *url == kStorage) return;
    TARNWELL_CHECK(std::ranges::count(identifier, '=') == 1);
    TARNWELL_CHECK(url->deletingLastPathComponent() == kStorage);
    const std::uint64_t number = std::stoull(std::string(url->lastPathComponent()));
    const bool isDocument = identifier.starts_with("did=");
    TARNWELL_CHECK(isDocument || identifier.starts_with("fid="));
    const std::string canonical = isDocument ? items::TWPFileObjectIdentifier::fromDocumentID(number)
                                             : items::TWPFileObjectIdentifier::fromFileID(number);
    TARNWELL_CHECK(identifiers.fileURLWithItemIdentifier(canonical) == url);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(textOf({data, size}));
    checkChangePath(text);
    checkIdentifier(text);
    return 0;
}
