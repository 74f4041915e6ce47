// Asks the service on a bus one question after the other, and prints for each how it ended: "enumerate did=1: ok", or
// the error's name. A program of its own, so that it can be run in a sandbox.
#include <unistd.h>

#include <array>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "bus/client/BusSession.h"
#include "bus/wire/Errors.h"

namespace {

using tarnwell::Result;
using tarnwell::session::JobControl;
using tarnwell::session::Session;

template <typename T>
std::string outcomeOf(const Result<T>& result) {
    return result ? "ok" : tarnwell::bus::errorName(result.error());
}

constexpr std::string_view kWrittenInTheSandbox = "written in the sandbox";

/// What an item's document holds, by the descriptor that the service opened.
std::string contentOf(Session& session, const std::string& item) {
    const auto opened = session.open(item, Session::Access::read);
    if (!opened) return outcomeOf(opened);
    std::array<char, 256> text{};
    const ssize_t count = ::read(opened->get(), text.data(), text.size());
    return count < 0 ? "cannot be read" : "ok " + std::string(text.data(), static_cast<std::size_t>(count));
}

std::string overwrite(Session& session, const std::string& item) {
    const auto opened = session.open(item, Session::Access::readWrite);
    if (!opened) return outcomeOf(opened);
    const bool isWritten = ::ftruncate(opened->get(), 0) == 0 &&
                           ::write(opened->get(), kWrittenInTheSandbox.data(), kWrittenInTheSandbox.size()) ==
                               std::ssize(kWrittenInTheSandbox);
    return isWritten ? "ok" : "cannot be written";
}

/// What changed since now, which is nothing.
std::string changesSinceNow(Session& session, const std::string& container) {
    const auto anchor = session.currentAnchor(container);
    if (!anchor) return outcomeOf(anchor);
    return outcomeOf(session.changes(container, anchor->value_or(tarnwell::Bytes())));
}

/// "ITEM" or "ITEM FOLDER"; no identifier has a blank.
struct Move {
    explicit Move(const std::string& text)
        : item(text.substr(0, text.find(' '))),
          folder(text.contains(' ') ? std::optional(text.substr(text.find(' ') + 1)) : std::nullopt) {}
    std::string item;
    std::optional<std::string> folder;
};

using Ask = std::function<std::string(Session&, const std::string&)>;

const std::map<std::string, Ask>& questions() {
    static const std::map<std::string, Ask> all = {
        {"item", [](Session& s, const std::string& i) { return outcomeOf(s.items({i}).at(0)); }},
        {"path",
         [](Session& s, const std::string& i) {
             return outcomeOf(s.identifiersAtPaths({i}, tarnwell::session::PathUse::lookUp).at(0));
         }},
        {"enumerate", [](Session& s, const std::string& i) { return outcomeOf(s.enumerate(i, {})); }},
        {"anchor", [](Session& s, const std::string& i) { return outcomeOf(s.currentAnchor(i)); }},
        {"changes", [](Session& s, const std::string& i) { return outcomeOf(s.changes(i, {1})); }},
        {"changesSinceNow", changesSinceNow},
        {"watch", [](Session& s, const std::string& i) { return outcomeOf(s.watch(i, [] {})); }},
        {"open", [](Session& s, const std::string& i) { return outcomeOf(s.open(i, Session::Access::read)); }},
        {"write", [](Session& s, const std::string& i) { return outcomeOf(s.open(i, Session::Access::readWrite)); }},
        {"read", contentOf},
        {"overwrite", overwrite},
        {"makeFolder", [](Session& s, const std::string& i) { return outcomeOf(s.makeFolder("New", i)); }},
        {"rename", [](Session& s, const std::string& i) { return outcomeOf(s.rename(i, "Renamed.txt")); }},
        {"tag", [](Session& s, const std::string& i) { return outcomeOf(s.setTags(i, {"t"})); }},
        {"rank", [](Session& s, const std::string& i) { return outcomeOf(s.setRank(i, 1)); }},
        {"used", [](Session& s, const std::string& i) { return outcomeOf(s.setLastUsed(i, tarnwell::Date())); }},
        {"import",
         [](Session& s, const std::string& i) {
             JobControl job;
             return outcomeOf(s.import({"/usr/bin/env"}, i, job).at(0));
         }},
        {"trash",
         [](Session& s, const std::string& i) {
             JobControl job;
             return outcomeOf(s.trash({i}, job).at(0));
         }},
        {"restore",
         [](Session& s, const std::string& i) {
             JobControl job;
             const Move move(i);
             return outcomeOf(s.restore({move.item}, move.folder, job).at(0));
         }},
        {"move",
         [](Session& s, const std::string& i) {
             JobControl job;
             const Move move(i);
             return outcomeOf(s.move({move.item}, move.folder.value_or("#org.example.Notes"), "Moved.txt", job).at(0));
         }},
        {"delete",
         [](Session& s, const std::string& i) {
             JobControl job;
             return outcomeOf(s.remove({i}, job).at(0));
         }},
        {"thumbnail", [](Session& s, const std::string& i) { return outcomeOf(s.thumbnails({i}, 32).at(0)); }},
        {"default", [](Session& s, const std::string& i) { return outcomeOf(s.defaultContainer(i)); }},
        {"refresh", [](Session& s, const std::string&) { return outcomeOf(s.refresh()); }},
        {"status", [](Session& s, const std::string&) { return outcomeOf(s.status()); }},
        {"clean", [](Session& s, const std::string&) { return outcomeOf(s.cleanTrash(tarnwell::Date())); }},
        {"applications",
         [](Session& s, const std::string&) {
             const auto applications = s.applications();
             if (!applications) return outcomeOf(applications);
             std::string text = "ok";
             for (const auto& one : *applications) text += " " + one.item.identifier;
             return text;
         }},
        {"search",
         [](Session& s, const std::string& i) {
             const auto found = s.search({.query = i}, {});
             if (!found) return outcomeOf(found);
             std::string text = "ok";
             for (const auto& one : found->items) text += " " + one.item.filename;
             return text;
         }},
    };
    return all;
}

}  // namespace

/// Arguments: the bus's address, then pairs of a question and what it is about.
int main(int count, char** arguments) {
    const auto session = tarnwell::bus::BusSession::connect(tarnwell::bus::BusSession::Start::never, arguments[1]);
    if (!session) {
        std::cout << "refused: " << tarnwell::bus::errorName(session.error()) << std::endl;
        return 0;
    }
    for (int i = 2; i + 1 < count; i += 2) {
        std::cout << arguments[i] << " " << arguments[i + 1] << ": "
                  << questions().at(arguments[i])(**session, arguments[i + 1]) << std::endl;
    }
    return 0;
}
