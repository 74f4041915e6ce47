#include "bus/server/Methods.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include "bus/wire/Names.h"
#include "bus/wire/Packed.h"
#include "bus/wire/Parcel.h"
#include "bus/wire/Pictures.h"
#include "bus/wire/Records.h"
#include "bus/wire/SealedFile.h"

namespace tarnwell::bus {
namespace {

using session::JobControl;
using session::Session;

/// More is told as being more: a message has its limit, and a person reads no such list.
constexpr std::uint64_t kMostFound = 20'000;

/// The answer that holds one record.
template <typename T>
Answer answer(T value) {
    return WriteAnswer([value = std::move(value)](Writer& writer) { write(writer, value); });
}

template <typename T>
Answer answer(Result<T> value) {
    if (!value) return failure(value.error());
    return answer(std::move(*value));
}

Answer answerTo(Result<std::optional<Bytes>> anchor) {
    if (!anchor) return failure(anchor.error());
    return WriteAnswer([anchor = std::move(*anchor)](Writer& writer) { writer.bytes(anchor.value_or(Bytes{})); });
}

Answer answerTo(Result<Descriptor> descriptor) {
    if (!descriptor) return failure(descriptor.error());
    return WriteAnswer([descriptor = std::move(*descriptor)](Writer& writer) { writer.descriptor(descriptor); });
}

Answer answerTo(const Session::Each<Bytes>& pictures) {
    std::vector<Result<Descriptor>> files;
    for (const auto& picture : pictures) {
        files.push_back(picture ? sealedFile("tarnwell-picture", *picture)
                                : Result<Descriptor>(failure(picture.error())));
    }
    return WriteAnswer([files = std::move(files)](Writer& writer) { writePictures(writer, files); });
}

/// The packing is done by the worker, while the connection's thread serves others.
Answer packed(Result<session::Page> page) {
    if (!page) return failure(page.error());
    return WriteAnswer([items = Parcel(packItems(page->items)), next = std::move(page->next)](Writer& writer) {
        items.write(writer);
        writer.bytes(next.value_or(Bytes{}));
    });
}

Parcel parcelOf(const std::vector<session::Change>& changes) { return Parcel(packChanges(changes)); }

Answer packed(Result<session::ChangeBatch> batch) {
    if (!batch) return failure(batch.error());
    (void)batch->changes.inForm(parcelOf);
    return WriteAnswer([batch = std::move(*batch)](Writer& writer) {
        batch.changes.inForm(parcelOf).write(writer);
        writer.bytes(batch.anchor).boolean(batch.moreComing);
    });
}

/// Empty bytes stand for none.
std::optional<Bytes> readToken(Reader& reader) {
    Bytes token = reader.bytes(kLongestText);
    return token.empty() ? std::nullopt : std::optional(std::move(token));
}

/// The one that an array holds, or none.
std::optional<std::string> onlyOne(Reader& reader, std::vector<std::string> list) {
    if (list.size() > 1) reader.fail(-EINVAL);
    return list.empty() ? std::nullopt : std::optional(std::move(list.front()));
}

Result<session::Item> single(Session::Each<session::Item> outcomes) {
    if (outcomes.size() != 1) return failure(posixError(EPROTO));
    return std::move(outcomes.front());
}

constexpr std::array kMethods = {
    Method{{"Item", "s", "identifier", "a{sv}", "item"},
           [](Reader& reader) -> Work {
               return [item = reader.string()](Session& session) { return answer(single(session.items({item}))); };
           }},
    Method{{"Items", "as", "identifiers", "aa{sv}", "outcomes"},
           [](Reader& reader) -> Work {
               return [items = readIdentifiers(reader)](Session& session) { return answer(session.items(items)); };
           }},
    Method{{"ItemForPath", "ay", "path", "a{sv}", "item"},
           [](Reader& reader) -> Work {
               return [path = reader.text()](Session& session) -> Answer {
                   auto found = session.identifiersAtPaths({path}, session::PathUse::lookUp);
                   if (found.size() != 1) return failure(posixError(EPROTO));
                   if (!found.front()) return failure(found.front().error());
                   return answer(single(session.items({*found.front()})));
               };
           }},
    Method{{"IdentifiersAtPaths", "aayb", "paths target", "aa{sv}", "outcomes"},
           [](Reader& reader) -> Work {
               auto paths = reader.texts();
               const auto use = reader.boolean() ? session::PathUse::target : session::PathUse::lookUp;
               return [paths = std::move(paths), use](Session& session) {
                   return answer(session.identifiersAtPaths(paths, use));
               };
           }},
    Method{{"Enumerate", "say", "container page", "aa{sv}ay", "items nextPage"},
           [](Reader& reader) -> Work {
               auto container = reader.string();
               return [container = std::move(container), page = readToken(reader)](Session& session) {
                   return answer(session.enumerate(container, page));
               };
           }},
    Method{{"EnumeratePacked", "say", "container page", "ayahay", "items itemsFile nextPage"},
           [](Reader& reader) -> Work {
               auto container = reader.string();
               return [container = std::move(container), page = readToken(reader)](Session& session) {
                   return packed(session.enumerate(container, page));
               };
           }},
    Method{{"CurrentAnchor", "s", "container", "ay", "anchor"},
           [](Reader& reader) -> Work {
               return [container = reader.string()](Session& session) {
                   return answerTo(session.currentAnchor(container));
               };
           }},
    Method{{"Changes", "say", "container anchor", "a(sa{sv})ayb", "changes anchor moreComing"},
           [](Reader& reader) -> Work {
               auto container = reader.string();
               return [container = std::move(container), anchor = reader.bytes(kLongestText)](Session& session) {
                   return answer(session.changes(container, anchor));
               };
           }},
    Method{{"ChangesPacked", "say", "container anchor", "ayahayb", "changes changesFile anchor moreComing"},
           [](Reader& reader) -> Work {
               auto container = reader.string();
               return [container = std::move(container), anchor = reader.bytes(kLongestText)](Session& session) {
                   return packed(session.changes(container, anchor));
               };
           }},
    Method{{"Open", "sb", "item write", "h", "file"},
           [](Reader& reader) -> Work {
               auto item = reader.string();
               const auto access = reader.boolean() ? Session::Access::readWrite : Session::Access::read;
               return
                   [item = std::move(item), access](Session& session) { return answerTo(session.open(item, access)); };
           }},
    Method{{"MakeFolder", "ays", "name parent", "a{sv}", "item"},
           [](Reader& reader) -> Work {
               auto name = reader.text();
               return [name = std::move(name), parent = reader.string()](Session& session) {
                   return answer(session.makeFolder(name, parent));
               };
           },
           Effect::some},
    Method{{"Rename", "say", "item name", "a{sv}", "item"},
           [](Reader& reader) -> Work {
               auto item = reader.string();
               return [item = std::move(item), name = reader.text()](Session& session) {
                   return answer(session.rename(item, name));
               };
           },
           Effect::some},
    Method{{"SetTags", "saay", "item labels", "a{sv}", "item"},
           [](Reader& reader) -> Work {
               auto item = reader.string();
               return [item = std::move(item), labels = reader.texts()](Session& session) {
                   return answer(session.setTags(item, labels));
               };
           },
           Effect::some},
    Method{{"SetFavoriteRank", "sat", "item rank", "a{sv}", "item"},
           [](Reader& reader) -> Work {
               auto item = reader.string();
               return [item = std::move(item), rank = readOptionalNumber(reader)](Session& session) {
                   return answer(session.setRank(item, rank));
               };
           },
           Effect::some},
    Method{{"SetLastUsedDate", "sax", "item date", "a{sv}", "item"},
           [](Reader& reader) -> Work {
               auto item = reader.string();
               return [item = std::move(item), date = readOptionalDate(reader)](Session& session) {
                   return answer(session.setLastUsed(item, date));
               };
           },
           Effect::some},
    Method{{"CleanTrash", "x", "olderThan", "aayaay", "removed left"},
           [](Reader& reader) -> Work {
               return [date = Date(std::chrono::nanoseconds(reader.int64()))](Session& session) {
                   return answer(session.cleanTrash(date));
               };
           },
           Effect::some},
    Method{{"Thumbnails", "asu", "items side", "aa{sv}ah", "outcomes files"},
           [](Reader& reader) -> Work {
               auto items = readIdentifiers(reader);
               if (items.size() > kMostThumbnails) reader.fail(-E2BIG);
               return [items = std::move(items), side = reader.uint32()](Session& session) {
                   return answerTo(session.thumbnails(items, side));
               };
           }},
    Method{{"Applications", "", "", "aa{sv}", "applications"},
           [](Reader&) -> Work { return [](Session& session) { return answer(session.applications()); }; }},
    Method{{"Refresh", "", "", "aa{sv}aa{sv}a(say)t", "added changed removed applications"},
           [](Reader&) -> Work { return [](Session& session) { return answer(session.refresh()); }; },
           Effect::some},
    Method{{"DefaultContainer", "s", "bundleIdentifier", "a{sv}", "item"},
           [](Reader& reader) -> Work {
               return [bundle = reader.string()](Session& session) { return answer(session.defaultContainer(bundle)); };
           }},
    Method{{"Search", "aya{sv}t", "query options limit", "a(a{sv}ay)t", "found more"},
           [](Reader& reader) -> Work {
               auto request = readSearchRequest(reader);
               request.limit = request.limit == 0 ? kMostFound : std::min(request.limit, kMostFound);
               return [request = std::move(request)](Session& session) { return answer(session.search(request, {})); };
           }},
    Method{{"Status", "", "", "a{sv}", "status"},
           [](Reader&) -> Work { return [](Session& session) { return answer(session.status()); }; }},
};

constexpr std::array kJobMethods = {
    JobMethod{{"Import", "aays", "paths parent", "o", "job"},
              [](Reader& reader) -> JobWork {
                  auto paths = reader.texts();
                  return [paths = std::move(paths), parent = reader.string()](Session& session, JobControl& control) {
                      return answer(session.import(paths, parent, control));
                  };
              }},
    JobMethod{{"Move", "assaay", "items parent name", "o", "job"},
              [](Reader& reader) -> JobWork {
                  auto items = readIdentifiers(reader);
                  auto parent = reader.string();
                  auto name = onlyOne(reader, reader.texts());
                  if (name && items.size() != 1) reader.fail(-EINVAL);
                  return [items = std::move(items), parent = std::move(parent), name = std::move(name)](
                             Session& session, JobControl& control) {
                      return answer(session.move(items, parent, name, control));
                  };
              }},
    JobMethod{{"Trash", "as", "items", "o", "job"},
              [](Reader& reader) -> JobWork {
                  return [items = readIdentifiers(reader)](Session& session, JobControl& control) {
                      return answer(session.trash(items, control));
                  };
              }},
    JobMethod{{"Restore", "asas", "items parent", "o", "job"},
              [](Reader& reader) -> JobWork {
                  auto items = readIdentifiers(reader);
                  return [items = std::move(items), parent = onlyOne(reader, readIdentifiers(reader))](
                             Session& session, JobControl& control) {
                      return answer(session.restore(items, parent, control));
                  };
              }},
    JobMethod{{"Delete", "as", "items", "o", "job"},
              [](Reader& reader) -> JobWork {
                  return [items = readIdentifiers(reader)](Session& session, JobControl& control) {
                      return answer(session.remove(items, control));
                  };
              }},
};

}  // namespace

std::span<const Method> methods() { return kMethods; }
std::span<const JobMethod> jobMethods() { return kJobMethods; }

}  // namespace tarnwell::bus
