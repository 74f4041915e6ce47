#pragma once

#include "bus/wire/Message.h"
#include "platform/base/Result.h"
#include "session/Session.h"

/// The session's records as D-Bus values. What is absent has no entry. Bytes that need not be UTF-8 (names, paths,
/// labels) are arrays of bytes, dates are nanoseconds since 1970 (x).
namespace tarnwell::bus {

/// a{sv}.
void write(Writer& writer, const session::Item& item);
session::Item readItem(Reader& reader);

/// a{sv}: the item, or its error. Fails with EPROTO where it is neither.
void write(Writer& writer, const Result<session::Item>& outcome);
Result<session::Item> readItemOutcome(Reader& reader);

/// aa{sv}.
void write(Writer& writer, const session::Session::Each<session::Item>& outcomes);
session::Session::Each<session::Item> readItemOutcomes(Reader& reader);

/// aa{sv} of {"identifier": s} or an error.
void write(Writer& writer, const session::Session::Each<session::ItemIdentifier>& outcomes);
session::Session::Each<session::ItemIdentifier> readIdentifierOutcomes(Reader& reader);

/// aa{sv} of {"itemIdentifier": s, "path": ay} or an error.
void write(Writer& writer, const session::Session::Each<session::Removed>& outcomes);
session::Session::Each<session::Removed> readRemovedOutcomes(Reader& reader);

/// aa{sv}.
void write(Writer& writer, const std::vector<session::Item>& items);
std::vector<session::Item> readItems(Reader& reader);

/// aa{sv}, ay: the items, and what asks for the next page; empty after the last one.
void write(Writer& writer, const session::Page& page);
session::Page readPage(Reader& reader);

/// a(sa{sv}), ay, b: of each change the identifier and the item, without an entry when it is gone; the anchor; whether
/// more is coming.
void write(Writer& writer, const session::ChangeBatch& batch);
session::ChangeBatch readChangeBatch(Reader& reader);

/// aa{sv}: the library's item with "origin", "installedFor" and "containerPath".
void write(Writer& writer, const std::vector<session::Application>& applications);
std::vector<session::Application> readApplications(Reader& reader);

/// aa{sv}, aa{sv}, a(say), t: added, changed, removed, how many there are.
void write(Writer& writer, const session::Refreshed& refreshed);
session::Refreshed readRefreshed(Reader& reader);

/// aay, aay.
void write(Writer& writer, const session::CleanedTrash& cleaned);
session::CleanedTrash readCleanedTrash(Reader& reader);

/// ay, a{sv}, t.
void write(Writer& writer, const session::SearchRequest& request);
session::SearchRequest readSearchRequest(Reader& reader);

/// a(a{sv}ay), t.
void write(Writer& writer, const session::SearchResult& result);
session::SearchResult readSearchResult(Reader& reader);

/// a{sv}.
void write(Writer& writer, const session::Status& status);
session::Status readStatus(Reader& reader);

/// tttatat: index, bytes done, items done, and their totals where they are known.
void write(Writer& writer, const session::JobProgress& progress);
session::JobProgress readJobProgress(Reader& reader);

/// as and aay, at most kMostPerRequest.
void writeIdentifiers(Writer& writer, const std::vector<std::string>& identifiers);
std::vector<std::string> readIdentifiers(Reader& reader);
void writeTexts(Writer& writer, const std::vector<std::string>& texts);

/// "at" or "ax": the one value that an optional has.
void writeOptional(Writer& writer, const std::optional<std::uint64_t>& value);
std::optional<std::uint64_t> readOptionalNumber(Reader& reader);
void writeOptional(Writer& writer, const std::optional<Date>& value);
std::optional<Date> readOptionalDate(Reader& reader);

}  // namespace tarnwell::bus
