#pragma once

#include <array>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hostframework/ProviderItem.h"
#include "items/Environment.h"

namespace tarnwell::items {

class LocalAppLibraryItem;

/// The record of one file or folder, built once from its URL. Immutable but for `childItemCount` (set only while it is
/// being built) and `putBackURL` (computed on first read).
class LocalItem : public hostframework::ProviderItem {
public:
    inline static const std::string xattrLastUsedDateName = "com.vellum.lastuseddate#PS";
    inline static const std::string xattrTagDataName = "com.vellum.metadata:_kMDItemUserTags";
    inline static const std::string xattrFavoriteRankName = "com.vellum.favorite-rank.number#PS";
    inline static const std::string xattrTrashDateName = "com.vellum.trash.time#PS";
    inline static const std::string xattrTrashPutBackName = "com.vellum.trash.putback#PS";
    /// All of them: they belong to the document, not to one version of its file. The most important first.
    static std::vector<std::string> keptAttributeNames();
    /// What a listing prefetches for its items.
    static constexpr std::array<files::ResourceKey, 9> urlKeys = {
        files::ResourceKey::parentDirectoryURL,      files::ResourceKey::name,       files::ResourceKey::localizedName,
        files::ResourceKey::typeIdentifier,          files::ResourceKey::fileSize,   files::ResourceKey::creationDate,
        files::ResourceKey::contentModificationDate, files::ResourceKey::isReadable, files::ResourceKey::isWritable};

    /// What the caller knows better than the disk, or has at hand already.
    struct Arguments {
        std::optional<std::string> customItemID;
        std::optional<std::string> customParentItemID;
        std::optional<std::string> customFilename;
        bool hasSearchDomainIdentifier = true;
        /// The container's bundle identifier where the search domain gives none.
        std::optional<std::string> bundleIdentifier;
    };

    /// Null when it cannot be built; the reason is logged.
    static std::shared_ptr<LocalItem> initWithURL(const Environment& environment, const URL& url,
                                                  const Arguments& arguments);
    static std::shared_ptr<LocalItem> initWithFileIdentifier(const Environment& environment, std::uint64_t fileID);

    const std::string& itemIdentifier() const override { return itemIdentifier_; }
    const std::string& parentItemIdentifier() const override { return parentItemIdentifier_; }
    const std::string& itemIdentifierAsString() const { return itemIdentifier_; }
    const std::string& parentItemIdentifierAsString() const { return parentItemIdentifier_; }
    const std::string& filename() const override { return filename_; }
    const std::string& typeIdentifier() const override { return typeIdentifier_; }
    std::optional<std::uint64_t> documentSize() const override { return documentSize_; }
    std::optional<Date> creationDate() const override { return creationDate_; }
    std::optional<Date> contentModificationDate() const override { return contentModificationDate_; }
    std::optional<std::uint16_t> childItemCount() const override { return childItemCount_; }
    std::uint64_t capabilities() const override { return capabilities_; }
    const std::optional<Bytes>& versionIdentifier() const override { return versionIdentifier_; }
    bool isTrashed() const override { return isTrashed_; }
    std::optional<Date> lastUsedDate() const override { return lastUsedDate_; }
    const std::optional<Bytes>& tagData() const override { return tagData_; }
    std::optional<std::uint64_t> favoriteRank() const override { return favoriteRank_; }
    std::optional<FileID> fileID() const override { return fileID_; }
    std::optional<std::int64_t> docID() const override { return docID_; }
    const URL& fileURL() const override { return fileURL_; }
    const std::optional<std::string>& searchDomainIdentifier() const override { return searchDomainIdentifier_; }
    const std::optional<std::string>& appContainerBundleIdentifier() const override {
        return appContainerBundleIdentifier_;
    }
    bool isUbiquitous() const override { return false; }
    bool isFolder() const override;
    bool isContainer() const override { return false; }
    std::string description() const override;

    void setChildItemCount(std::optional<std::uint16_t> count) { childItemCount_ = count; }
    /// The folder that held a trashed item, always inside its library's root folder; nothing where none is remembered
    /// or what is remembered leads elsewhere. Read from the disk by the first call; any thread may call it.
    std::optional<URL> putBackURL() const;
    void setPutBackURL(std::optional<URL> url);
    /// The library whose root folder holds this item; null for a library itself.
    virtual std::shared_ptr<LocalAppLibraryItem> fetchAppLibraryItem() const;

protected:
    LocalItem(const Environment& environment, const URL& url);
    /// Fills the fields; false (after a log line) when the item cannot be built.
    bool build(const Arguments& arguments);
    virtual const char* className() const { return "LocalItem"; }

    const Environment& environment_;
    std::string itemIdentifier_;
    std::string parentItemIdentifier_;
    std::string filename_;
    std::string typeIdentifier_;
    std::optional<std::uint64_t> documentSize_;
    std::optional<Date> creationDate_;
    std::optional<Date> contentModificationDate_;
    std::optional<std::uint16_t> childItemCount_;
    std::uint64_t capabilities_ = 0;
    std::optional<Bytes> versionIdentifier_;
    bool isTrashed_ = false;
    std::optional<Date> lastUsedDate_;
    std::optional<Bytes> tagData_;
    std::optional<std::uint64_t> favoriteRank_;
    std::optional<FileID> fileID_;
    std::optional<std::int64_t> docID_;
    URL fileURL_;
    std::optional<std::string> searchDomainIdentifier_;
    std::optional<std::string> appContainerBundleIdentifier_;

private:
    bool buildNames(const Arguments& arguments);
    void buildCapabilities();
    void buildAttributes();
    void buildFileID();
    void buildDomain(const Arguments& arguments);
    std::optional<URL> computePutBackURL() const;

    mutable std::mutex putBackMutex_;
    mutable bool putBackComputed_ = false;
    mutable std::optional<URL> putBackURL_;
};

/// The item of an application's Documents folder, made from the application's record.
class LocalAppLibraryItem : public LocalItem {
public:
    /// Null when it cannot be built; the reason is logged. Its name is the one given, else the application's: a look at
    /// how the application presents itself, which costs more than all the rest.
    static std::shared_ptr<LocalAppLibraryItem> initFrom(const Environment& environment,
                                                         const registry::BundleRecord& record,
                                                         std::optional<std::string> knownName = std::nullopt);
    /// A library is made from a record only.
    static std::shared_ptr<LocalItem> initWithURL(const Environment&, const URL&, const Arguments&) = delete;
    static std::shared_ptr<LocalItem> initWithFileIdentifier(const Environment&, std::uint64_t) = delete;

    bool isContainer() const override { return true; }
    std::shared_ptr<LocalAppLibraryItem> fetchAppLibraryItem() const override { return nullptr; }

protected:
    LocalAppLibraryItem(const Environment& environment, const URL& url) : LocalItem(environment, url) {}
    const char* className() const override { return "LocalAppLibraryItem"; }

private:
    void leaveOutReservedFolders();
};

}  // namespace tarnwell::items
