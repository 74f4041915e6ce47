#include "host/SearchIndex.h"

#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <ctime>

#include "hostframework/TagCodec.h"
#include "platform/filesystem/PlainFile.h"
#include "platform/store/Database.h"

namespace tarnwell::host {
namespace {

using hostframework::ProviderItem;
using search::EntryTable;

constexpr const char* kAnchor = "anchor";
constexpr const char* kUnsettled = "unsettled";
constexpr const char* kCaughtUp = "caughtUp";  ///< seconds since 1970

std::vector<std::string> labelsOf(const ProviderItem& item) {
    std::vector<std::string> labels;
    const auto tags = item.tagData() ? hostframework::TagCodec::decode(*item.tagData()) : std::nullopt;
    if (!tags) return labels;
    for (const auto& tag : *tags) labels.push_back(tag.label);
    return labels;
}

search::Entry entryOf(const ProviderItem& item) {
    search::Entry entry;
    entry.key = item.itemIdentifier();
    entry.parent = item.parentItemIdentifier();
    entry.name = item.filename();
    entry.type = item.typeIdentifier();
    entry.tags = labelsOf(item);
    entry.size = item.documentSize();
    entry.isFolder = item.isFolder();
    // Only a trash folder is hidden and told of all the same, for what lies in it.
    entry.isHidden = entry.name.starts_with('.');
    entry.own = {item.searchDomainIdentifier(), item.isTrashed()};
    entry.below = {entry.own.domain, entry.own.isTrashed || entry.isHidden};
    if (item.isContainer()) {
        // Nobody is told when a library's own dates change.
        entry.below.domain = item.appContainerBundleIdentifier();
    } else {
        entry.created = item.creationDate();
        entry.modified = item.contentModificationDate();
        entry.used = item.lastUsedDate();
    }
    return entry;
}

/// The root stands above everything that can be found.
bool isIndexed(const ProviderItem& item) { return item.itemIdentifier() != hostframework::kRootContainer; }

std::uint64_t sizeOf(const std::string& path) {
    struct stat status{};
    return ::stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

}  // namespace

bool isDamagedIndex(const Error& error) {
    return error.is(ErrorDomain::store, static_cast<std::int64_t>(store::StoreError::damaged));
}

SearchIndex::SearchIndex(std::string directory, const UUID& store, log::Log& log)
    : directory_(std::move(directory)), path_(directory_ + "/search.sqlite"), origin_(store.text()), log_(log) {}

bool SearchIndex::exists() const {
    struct stat status{};
    return ::lstat(path_.c_str(), &status) == 0;
}

/// One of them is kept for a look at what was wrong.
Result<void> SearchIndex::setAside() const {
    for (const char* suffix : {"", "-wal", "-shm"}) {
        const std::string from = path_ + suffix, to = path_ + ".old" + suffix;
        if (std::rename(from.c_str(), to.c_str()) == 0) continue;
        const int code = errno;
        // What is left of a former one would be read as part of this one.
        if (code == ENOENT && (std::remove(to.c_str()) == 0 || errno == ENOENT)) continue;
        return failure(posixError(code, "the search index " + from + " cannot be set aside"));
    }
    return {};
}

Result<void> SearchIndex::open() {
    if (table_) return {};
    if (auto made = filesystem::createDirectories(directory_); !made) {
        Error error = made.error();
        error.userInfo[kErrorMessage] = "the search index's folder " + directory_ + " cannot be made";
        return failure(std::move(error));
    }
    auto table = EntryTable::open(path_, origin_);
    if (!table && isDamagedIndex(table.error())) {
        log_.write(log::Level::info,
                   "[INFO] the search index is built anew (" + describe(table.error()) + "); the old one is kept");
        if (auto aside = setAside(); !aside) return aside;
        table = EntryTable::open(path_, origin_);
    }
    if (!table) return failure(table.error());
    table_ = std::move(*table);
    return {};
}

template <typename Work>
auto SearchIndex::use(Work work) -> decltype(work(std::declval<EntryTable&>())) {
    const std::lock_guard lock(mutex_);
    if (auto opened = open(); !opened) return failure(opened.error());
    auto outcome = work(*table_);
    if (auto checked = table_->check(); outcome && !checked) outcome = failure(checked.error());
    if (outcome || !isDamagedIndex(outcome.error())) return outcome;
    table_.reset();
    log_.write(log::Level::info,
               "[INFO] the search index is damaged and built anew (" + describe(outcome.error()) + ")");
    if (auto aside = setAside(); !aside) return failure(aside.error());
    return outcome;
}

template <typename Work>
Result<void> SearchIndex::write(Work work) {
    return use([&](EntryTable& table) -> Result<void> {
        table.begin();
        work(table);
        return table.commit();
    });
}

Result<std::optional<hostframework::SyncAnchor>> SearchIndex::anchor() {
    return use([](EntryTable& table) -> Result<std::optional<hostframework::SyncAnchor>> {
        const auto bytes = table.fact(kAnchor);
        if (!bytes) return std::nullopt;
        return hostframework::SyncAnchor(bytes->begin(), bytes->end());
    });
}

Result<void> SearchIndex::beginFill() {
    return write([](EntryTable& table) {
        table.removeFact(kAnchor);
        table.beginRound();
    });
}

Result<void> SearchIndex::add(const std::vector<hostframework::ProviderItemPtr>& items) {
    return write([&](EntryTable& table) {
        for (const auto& item : items) {
            if (isIndexed(*item)) table.put(entryOf(*item));
        }
    });
}

Result<void> SearchIndex::finishFill(const hostframework::SyncAnchor& anchor) {
    return write([&](EntryTable& table) {
        table.sweep();
        table.setFact(kAnchor, textOf(anchor));
        table.setFact(kUnsettled, "");
    });
}

Result<bool> SearchIndex::isSettled() {
    return use([](EntryTable& table) -> Result<bool> { return !table.fact(kUnsettled); });
}

Result<std::vector<hostframework::ItemIdentifier>> SearchIndex::unknownFoldersIn(const ChangeBatch& batch) {
    using Identifiers = std::vector<hostframework::ItemIdentifier>;
    return use([&](EntryTable& table) -> Result<Identifiers> {
        Identifiers unknown;
        for (const auto& report : batch.reports) {
            if (!report.updated || !report.updated->isFolder() || !isIndexed(*report.updated)) continue;
            const auto& identifier = report.updated->itemIdentifier();
            if (!table.has(identifier)) unknown.push_back(identifier);
        }
        return unknown;
    });
}

Result<void> SearchIndex::apply(const ChangeBatch& batch) {
    return write([&](EntryTable& table) {
        for (const auto& report : batch.reports) {
            if (report.deleted) {
                table.remove(*report.deleted);
            } else if (isIndexed(*report.updated)) {
                table.put(entryOf(*report.updated));
            }
        }
        table.setFact(kAnchor, textOf(batch.anchor));
    });
}

Result<void> SearchIndex::settle() {
    return write([](EntryTable& table) {
        table.removeFact(kUnsettled);
        table.setFact(kCaughtUp, std::to_string(std::time(nullptr)));
    });
}

Result<void> SearchIndex::removeDomains(const std::vector<std::string>& domains) {
    if (!exists()) return {};
    return write([&](EntryTable& table) {
        for (const std::string& domain : domains) {
            const std::string bundle = domain.starts_with('#') ? domain.substr(1) : domain;
            table.remove("#" + bundle);
            table.removeDomain(bundle);
        }
    });
}

Result<std::vector<search::Hit>> SearchIndex::find(const search::Search& search) {
    return use([&](EntryTable& table) { return search::find(table, search); });
}

Result<std::optional<session::SearchStatus>> SearchIndex::status() {
    if (!exists()) return std::nullopt;
    return use([&](EntryTable& table) -> Result<std::optional<session::SearchStatus>> {
        session::SearchStatus status{table.count(), sizeOf(path_) + sizeOf(path_ + "-wal"), std::nullopt};
        if (const auto seconds = table.fact(kCaughtUp)) {
            std::int64_t when = 0;
            std::from_chars(seconds->data(), seconds->data() + seconds->size(), when);
            status.caughtUp = Date(std::chrono::seconds(when));
        }
        return status;
    });
}

Result<std::vector<std::string>> SearchIndex::lines() {
    return use([](EntryTable& table) -> Result<std::vector<std::string>> { return table.lines(); });
}

}  // namespace tarnwell::host
