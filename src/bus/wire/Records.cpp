#include "bus/wire/Records.h"

#include <cerrno>
#include <string_view>
#include <utility>

#include "bus/wire/Dictionary.h"
#include "bus/wire/Errors.h"
#include "bus/wire/ItemEntries.h"
#include "bus/wire/Names.h"

namespace tarnwell::bus {
namespace {

using session::Item;
using session::Session;

constexpr const char* kEntry = "{sv}";
constexpr const char* kDictionary = "a{sv}";

/// The entries of an open a{sv}.
class Entries {
public:
    explicit Entries(Writer& writer) : writer_(writer) {}

    void text(const char* key, std::string_view value) {
        begin(key, "s").string(value);
        end();
    }
    void maybeText(const char* key, const std::optional<std::string>& value) {
        if (value) text(key, *value);
    }
    void bytes(const char* key, std::string_view value) {
        begin(key, "ay").bytes(value);
        end();
    }
    void boolean(const char* key, bool value) {
        begin(key, "b").boolean(value);
        end();
    }
    void number(const char* key, std::uint64_t value) {
        begin(key, "t").uint64(value);
        end();
    }
    void number(const char* key, const std::optional<std::uint64_t>& value) {
        if (value) number(key, *value);
    }
    void integer(const char* key, std::int64_t value) {
        begin(key, "x").int64(value);
        end();
    }
    void date(const char* key, const std::optional<Date>& value) {
        if (value) integer(key, value->time_since_epoch().count());
    }
    void texts(const char* key, const std::vector<std::string>& values) {
        begin(key, "aay");
        writeTexts(writer_, values);
        end();
    }
    void smallNumber(const char* key, std::uint16_t value) {
        begin(key, "q").uint16(value);
        end();
    }
    Writer& begin(const char* key, const char* contents) {
        return writer_.open('e', "sv").string(key).open('v', contents);
    }
    void end() { writer_.close().close(); }

private:
    Writer& writer_;
};

/// An outcome whose value is read by `take`, or the error that stands in its place.
template <typename T, typename Take>
Result<T> readOutcome(Reader& reader, Take take) {
    T value{};
    std::optional<std::string> name;
    std::string message;
    std::map<std::string, std::string> info;
    readDictionary(reader, [&](std::string_view key, std::string_view type) {
        if (key == "error" && type == "s") return name = reader.string(), true;
        if (key == "message" && type == "s") return message = reader.string(), true;
        if (key != "info" || type != "a{say}") return take(key, type, value);
        reader.enter('a', "{say}");
        while (reader.more()) {
            reader.enter('e', "say");
            std::string infoKey = reader.string();
            info[std::move(infoKey)] = reader.text();
            reader.exit();
        }
        reader.exit();
        return true;
    });
    if (!name) return value;
    Error error = errorOfName(*name, std::move(message));
    // As it was, to the letter.
    if (!info.empty()) error.userInfo = std::move(info);
    return failure(std::move(error));
}

template <typename T, typename Write>
void writeOutcome(Writer& writer, const Result<T>& outcome, Write writeValue) {
    writer.open('a', kEntry);
    if (outcome) {
        Entries entries(writer);
        writeValue(entries, *outcome);
    } else {
        writeError(writer, outcome.error());
    }
    writer.close();
}

template <typename List, typename Write>
void writeList(Writer& writer, const char* contents, const List& list, Write writeOne) {
    writer.open('a', contents);
    for (const auto& one : list) writeOne(one);
    writer.close();
}

template <typename T, typename Read>
std::vector<T> readList(Reader& reader, const char* contents, Read readOne) {
    std::vector<T> list;
    reader.enter('a', contents);
    while (reader.more()) list.push_back(readOne());
    reader.exit();
    return reader.error() == 0 ? std::move(list) : std::vector<T>{};
}

}  // namespace

void write(Writer& writer, const Item& item) {
    writer.open('a', kEntry);
    Entries entries(writer);
    writeEntries(entries, item);
    writer.close();
}

Item readItem(Reader& reader) {
    Item item;
    readDictionary(reader,
                   [&](std::string_view key, std::string_view type) { return readEntry(reader, key, type, item); });
    return item;
}

void write(Writer& writer, const Result<Item>& outcome) {
    writeOutcome(writer, outcome, [](Entries& entries, const Item& item) { writeEntries(entries, item); });
}

Result<Item> readItemOutcome(Reader& reader) {
    return readOutcome<Item>(reader, [&](std::string_view key, std::string_view type, Item& item) {
        return readEntry(reader, key, type, item);
    });
}

void write(Writer& writer, const Session::Each<Item>& outcomes) {
    writeList(writer, kDictionary, outcomes, [&](const Result<Item>& outcome) { write(writer, outcome); });
}

Session::Each<Item> readItemOutcomes(Reader& reader) {
    return readList<Result<Item>>(reader, kDictionary, [&] { return readItemOutcome(reader); });
}

void write(Writer& writer, const Session::Each<session::ItemIdentifier>& outcomes) {
    writeList(writer, kDictionary, outcomes, [&](const Result<session::ItemIdentifier>& outcome) {
        writeOutcome(writer, outcome,
                     [](Entries& entries, const std::string& identifier) { entries.text("identifier", identifier); });
    });
}

Session::Each<session::ItemIdentifier> readIdentifierOutcomes(Reader& reader) {
    return readList<Result<std::string>>(reader, kDictionary, [&] {
        return readOutcome<std::string>(reader, [&](std::string_view key, std::string_view type, std::string& value) {
            return key == "identifier" && type == "s" && (value = reader.string(), true);
        });
    });
}

void write(Writer& writer, const Session::Each<session::Removed>& outcomes) {
    writeList(writer, kDictionary, outcomes, [&](const Result<session::Removed>& outcome) {
        writeOutcome(writer, outcome, [](Entries& entries, const session::Removed& removed) {
            entries.text("itemIdentifier", removed.identifier);
            entries.bytes("path", removed.path);
        });
    });
}

Session::Each<session::Removed> readRemovedOutcomes(Reader& reader) {
    return readList<Result<session::Removed>>(reader, kDictionary, [&] {
        return readOutcome<session::Removed>(
            reader, [&](std::string_view key, std::string_view type, session::Removed& removed) {
                if (key == "itemIdentifier" && type == "s") return removed.identifier = reader.string(), true;
                if (key == "path" && type == "ay") return removed.path = reader.text(), true;
                return false;
            });
    });
}

void write(Writer& writer, const std::vector<Item>& items) {
    writeList(writer, kDictionary, items, [&](const Item& item) { write(writer, item); });
}

std::vector<Item> readItems(Reader& reader) {
    return readList<Item>(reader, kDictionary, [&] { return readItem(reader); });
}

void write(Writer& writer, const session::Page& page) {
    write(writer, page.items);
    writer.bytes(page.next.value_or(Bytes{}));
}

session::Page readPage(Reader& reader) {
    session::Page page;
    page.items = readItems(reader);
    if (Bytes next = reader.bytes(kLongestText); !next.empty()) page.next = std::move(next);
    return page;
}

void write(Writer& writer, const session::ChangeBatch& batch) {
    writeList(writer, "(sa{sv})", batch.changes.all(), [&](const session::Change& change) {
        writer.open('r', "sa{sv}").string(change.identifier).open('a', kEntry);
        if (change.item) {
            Entries entries(writer);
            writeEntries(entries, *change.item);
        }
        writer.close().close();
    });
    writer.bytes(batch.anchor).boolean(batch.moreComing);
}

session::ChangeBatch readChangeBatch(Reader& reader) {
    session::ChangeBatch batch;
    batch.changes = readList<session::Change>(reader, "(sa{sv})", [&] {
        session::Change change;
        reader.enter('r', "sa{sv}");
        change.identifier = reader.string();
        Item item;
        bool isThere = false;
        readDictionary(reader, [&](std::string_view key, std::string_view type) {
            isThere = true;
            return readEntry(reader, key, type, item);
        });
        if (isThere) change.item = std::move(item);
        reader.exit();
        return change;
    });
    batch.anchor = reader.bytes(kLongestText);
    batch.moreComing = reader.boolean();
    return batch;
}

void write(Writer& writer, const std::vector<session::Application>& applications) {
    writeList(writer, kDictionary, applications, [&](const session::Application& application) {
        writer.open('a', kEntry);
        Entries entries(writer);
        writeEntries(entries, application.item);
        entries.maybeText("origin", application.origin);
        entries.maybeText("installedFor", application.installedFor);
        if (application.containerPath) entries.bytes("containerPath", *application.containerPath);
        writer.close();
    });
}

std::vector<session::Application> readApplications(Reader& reader) {
    return readList<session::Application>(reader, kDictionary, [&] {
        session::Application application;
        readDictionary(reader, [&](std::string_view key, std::string_view type) {
            if (key == "origin" && type == "s") return application.origin = reader.string(), true;
            if (key == "installedFor" && type == "s") return application.installedFor = reader.string(), true;
            if (key == "containerPath" && type == "ay") return application.containerPath = reader.text(), true;
            return readEntry(reader, key, type, application.item);
        });
        return application;
    });
}

void write(Writer& writer, const session::Refreshed& refreshed) {
    write(writer, refreshed.added);
    write(writer, refreshed.changed);
    writeList(writer, "(say)", refreshed.removed, [&](const session::Refreshed::Removed& removed) {
        writer.open('r', "say").string(removed.identifier).bytes(removed.path).close();
    });
    writer.uint64(refreshed.applications);
}

session::Refreshed readRefreshed(Reader& reader) {
    session::Refreshed refreshed;
    refreshed.added = readItems(reader);
    refreshed.changed = readItems(reader);
    refreshed.removed = readList<session::Refreshed::Removed>(reader, "(say)", [&] {
        session::Refreshed::Removed removed;
        reader.enter('r', "say");
        removed.identifier = reader.string();
        removed.path = reader.text();
        reader.exit();
        return removed;
    });
    refreshed.applications = reader.uint64();
    return refreshed;
}

void write(Writer& writer, const session::CleanedTrash& cleaned) {
    writeTexts(writer, cleaned.removed);
    writeTexts(writer, cleaned.left);
}

session::CleanedTrash readCleanedTrash(Reader& reader) {
    session::CleanedTrash cleaned;
    const auto paths = [&] { return readList<std::string>(reader, "ay", [&] { return reader.text(); }); };
    cleaned.removed = paths();
    cleaned.left = paths();
    return cleaned;
}

void write(Writer& writer, const session::SearchRequest& request) {
    writer.bytes(request.query).open('a', kEntry);
    Entries entries(writer);
    if (!request.types.empty()) entries.texts("types", request.types);
    if (!request.tags.empty()) entries.texts("tags", request.tags);
    entries.maybeText("below", request.below);
    entries.boolean("newestFirst", request.order == session::SearchRequest::Order::newestFirst);
    if (request.order == session::SearchRequest::Order::byName) entries.bytes("byName", request.locale);
    entries.boolean("withTrashed", request.withTrashed);
    writer.close().uint64(request.limit);
}

session::SearchRequest readSearchRequest(Reader& reader) {
    session::SearchRequest request;
    request.query = reader.text();
    readDictionary(reader, [&](std::string_view key, std::string_view type) {
        if (key == "types" && type == "aay") return request.types = reader.texts(), true;
        if (key == "tags" && type == "aay") return request.tags = reader.texts(), true;
        if (key == "below" && type == "s") return request.below = reader.string(), true;
        if (key == "withTrashed" && type == "b") return request.withTrashed = reader.boolean(), true;
        if (key == "byName" && type == "ay") {
            request.order = session::SearchRequest::Order::byName;
            return request.locale = reader.text(), true;
        }
        if (key != "newestFirst" || type != "b") return false;
        if (reader.boolean()) request.order = session::SearchRequest::Order::newestFirst;
        return true;
    });
    request.limit = reader.uint64();
    return request;
}

void write(Writer& writer, const session::SearchResult& result) {
    writeList(writer, "(a{sv}ay)", result.items, [&](const session::Found& found) {
        writer.open('r', "a{sv}ay");
        write(writer, found.item);
        writer.bytes(found.place).close();
    });
    writer.uint64(result.more);
}

session::SearchResult readSearchResult(Reader& reader) {
    session::SearchResult result;
    result.items = readList<session::Found>(reader, "(a{sv}ay)", [&] {
        session::Found found;
        reader.enter('r', "a{sv}ay");
        found.item = readItem(reader);
        found.place = reader.text();
        reader.exit();
        return found;
    });
    result.more = reader.uint64();
    return result;
}

void write(Writer& writer, const session::Status& status) {
    writer.open('a', kEntry);
    Entries entries(writer);
    entries.begin("roots", "aa{sv}");
    writeList(writer, kDictionary, status.roots, [&](const session::RootStatus& root) {
        writer.open('a', kEntry);
        entries.bytes("path", root.path);
        entries.boolean("available", root.isAvailable);
        entries.text("source", root.source);
        entries.text("liveSource", root.liveSource);
        writer.close();
    });
    entries.end();
    entries.number("watches", status.watches);
    entries.number("queued", status.queued);
    entries.number("queueLimit", status.queueLimit);
    entries.number("overflows", status.overflows);
    entries.number("polledFolders", status.polledFolders);
    entries.bytes("storeDirectory", status.storeDirectory);
    entries.text("storeUUID", status.storeUUID);
    entries.number("storeOrigin", static_cast<std::uint64_t>(status.storeOrigin));
    entries.number("objects", status.objects);
    entries.number("databaseBytes", status.databaseBytes);
    entries.number("journalBegin", status.journalBegin);
    entries.number("journalEnd", status.journalEnd);
    entries.number("departures", status.departures);
    entries.date("lastCompared", status.lastCompared);
    if (status.search) {
        entries.number("searchItems", status.search->items);
        entries.number("searchDatabaseBytes", status.search->databaseBytes);
        entries.date("searchCaughtUp", status.search->caughtUp);
    }
    if (status.searchProblem) {
        entries.begin("searchProblem", kDictionary);
        write(writer, Result<Item>(failure(*status.searchProblem)));
        entries.end();
    }
    writer.close();
}

session::Status readStatus(Reader& reader) {
    session::Status status;
    const auto search = [&]() -> session::SearchStatus& {
        if (!status.search) status.search.emplace();
        return *status.search;
    };
    readDictionary(reader, [&](std::string_view key, std::string_view type) {
        if (type == "t") {
            const std::uint64_t value = reader.uint64();
            if (key == "watches") return status.watches = value, true;
            if (key == "queued") return status.queued = value, true;
            if (key == "queueLimit") return status.queueLimit = value, true;
            if (key == "overflows") return status.overflows = value, true;
            if (key == "polledFolders") return status.polledFolders = value, true;
            if (key == "storeOrigin") {
                if (value <= static_cast<std::uint64_t>(session::StoreOrigin::recoveredAfterDamage)) {
                    status.storeOrigin = static_cast<session::StoreOrigin>(value);
                }
                return true;
            }
            if (key == "objects") return status.objects = value, true;
            if (key == "databaseBytes") return status.databaseBytes = value, true;
            if (key == "journalBegin") return status.journalBegin = value, true;
            if (key == "journalEnd") return status.journalEnd = value, true;
            if (key == "departures") return status.departures = value, true;
            if (key == "searchItems") return search().items = value, true;
            if (key == "searchDatabaseBytes") return search().databaseBytes = value, true;
            return true;
        }
        if (key == "storeDirectory" && type == "ay") return status.storeDirectory = reader.text(), true;
        if (key == "storeUUID" && type == "s") return status.storeUUID = reader.string(), true;
        if (key == "lastCompared" && type == "x") return status.lastCompared = dateOf(reader.int64()), true;
        if (key == "searchCaughtUp" && type == "x") return search().caughtUp = dateOf(reader.int64()), true;
        if (key == "searchProblem" && type == kDictionary) {
            if (auto problem = readItemOutcome(reader); !problem) status.searchProblem = problem.error();
            return true;
        }
        if (key != "roots" || type != "aa{sv}") return false;
        status.roots = readList<session::RootStatus>(reader, kDictionary, [&] {
            session::RootStatus root;
            readDictionary(reader, [&](std::string_view rootKey, std::string_view rootType) {
                if (rootKey == "path" && rootType == "ay") return root.path = reader.text(), true;
                if (rootKey == "available" && rootType == "b") return root.isAvailable = reader.boolean(), true;
                if (rootKey == "source" && rootType == "s") return root.source = reader.string(), true;
                if (rootKey == "liveSource" && rootType == "s") return root.liveSource = reader.string(), true;
                return false;
            });
            return root;
        });
        return true;
    });
    return status;
}

void write(Writer& writer, const session::JobProgress& progress) {
    writer.uint64(progress.index).uint64(progress.bytesDone).uint64(progress.itemsDone);
    writeOptional(writer, progress.bytesTotal);
    writeOptional(writer, progress.itemsTotal);
}

session::JobProgress readJobProgress(Reader& reader) {
    session::JobProgress progress;
    progress.index = reader.uint64();
    progress.bytesDone = reader.uint64();
    progress.itemsDone = reader.uint64();
    progress.bytesTotal = readOptionalNumber(reader);
    progress.itemsTotal = readOptionalNumber(reader);
    return progress;
}

void writeIdentifiers(Writer& writer, const std::vector<std::string>& identifiers) {
    writeList(writer, "s", identifiers, [&](const std::string& identifier) { writer.string(identifier); });
}

std::vector<std::string> readIdentifiers(Reader& reader) {
    std::vector<std::string> identifiers;
    reader.enter('a', "s");
    while (reader.more()) {
        if (identifiers.size() == kMostPerRequest) reader.fail(-E2BIG);
        identifiers.push_back(reader.string());
    }
    reader.exit();
    return identifiers;
}

void writeTexts(Writer& writer, const std::vector<std::string>& texts) {
    writeList(writer, "ay", texts, [&](const std::string& text) { writer.bytes(text); });
}

void writeOptional(Writer& writer, const std::optional<std::uint64_t>& value) {
    writer.open('a', "t");
    if (value) writer.uint64(*value);
    writer.close();
}

std::optional<std::uint64_t> readOptionalNumber(Reader& reader) {
    std::optional<std::uint64_t> value;
    reader.enter('a', "t");
    while (reader.more()) {
        if (value) reader.fail(-EINVAL);
        value = reader.uint64();
    }
    reader.exit();
    return value;
}

void writeOptional(Writer& writer, const std::optional<Date>& value) {
    writer.open('a', "x");
    if (value) writer.int64(value->time_since_epoch().count());
    writer.close();
}

std::optional<Date> readOptionalDate(Reader& reader) {
    std::optional<Date> value;
    reader.enter('a', "x");
    while (reader.more()) {
        if (value) reader.fail(-EINVAL);
        value = dateOf(reader.int64());
    }
    reader.exit();
    return value;
}

}  // namespace tarnwell::bus
