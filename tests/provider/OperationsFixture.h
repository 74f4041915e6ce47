#pragma once

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "hostframework/HostError.h"
#include "items/ItemAttributes.h"
#include "items/TarnwellError.h"
#include "tests/provider/ProviderFixture.h"

namespace tarnwell::provider {

/// Takes the completion of one operation; a second one fails the test.
template <typename Outcome>
class Answer {
public:
    Answer() : state_(std::make_shared<State>()) {}

    template <typename... Arguments>
    void operator()(const Arguments&... arguments) const {
        std::lock_guard lock(state_->mutex);
        EXPECT_FALSE(state_->outcome.has_value()) << "completed twice";
        state_->outcome.emplace(arguments...);
        state_->thread = std::this_thread::get_id();
        state_->changed.notify_all();
    }
    bool hasCome() const {
        std::lock_guard lock(state_->mutex);
        return state_->outcome.has_value();
    }
    /// Waits for it, at most ten seconds.
    Outcome wait() const {
        std::unique_lock lock(state_->mutex);
        const bool came =
            state_->changed.wait_for(lock, std::chrono::seconds(10), [&] { return state_->outcome.has_value(); });
        if (!came) throw std::runtime_error("the operation was not completed");
        return *state_->outcome;
    }
    std::thread::id thread() const {
        std::lock_guard lock(state_->mutex);
        return state_->thread;
    }

private:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        std::optional<Outcome> outcome;
        std::thread::id thread;
    };
    std::shared_ptr<State> state_;
};
using ItemAnswer = Answer<Result<hostframework::ProviderItemPtr>>;
using DoneAnswer = Answer<std::optional<Error>>;

/// A device with an app library "notes", and file operations that a test can hold up.
class OperationsTest : public ProviderTest {
protected:
    OperationsTest() {
        install({notes_});
        documents_ = documentsOf(notes_);
        faultyItems_.appLibraries = device_.environment().appLibraries;
        newLines();
    }

    static inline const std::string kLibrary = "#org.example.notes";
    static inline const Error kNotPermitted = {ErrorDomain::generalFile, kWriteNotPermitted, {}};
    static inline const Error kInvalidIdentifier = items::makeError(items::TarnwellError::invalidItemIdentifier);

    /// Below the library's root folder.
    std::string notePath(const std::string& relative) const {
        return *notes_.containerPath + "/Documents" + (relative.empty() ? "" : "/" + relative);
    }
    URL noteURL(const std::string& relative) const { return documents_.appending(relative); }
    void makeNote(const std::string& relative, std::string_view content = "x") {
        const std::string path = notePath(relative);
        testing::makeDirectories(path.substr(0, path.rfind('/')));
        testing::writeFile(path, content);
    }
    void makeNoteFolder(const std::string& relative) { testing::makeDirectories(notePath(relative)); }
    std::string noteIdentifier(const std::string& relative) { return identifierOfURL(noteURL(relative)); }
    std::string identifierOfURL(const URL& url) {
        return items::TWPFileObjectIdentifier(device_.environment())
            .itemIdentifier(URL::file(url.path()))
            .value_or("none");
    }
    static bool exists(const std::string& path) {
        return std::filesystem::exists(std::filesystem::symlink_status(path));
    }

    std::optional<Bytes> attribute(const std::string& name, const URL& url) {
        return items::valueOfAttribute(device_.environment(), name, URL::file(url.path()));
    }
    std::optional<Date> dateAttribute(const std::string& name, const URL& url) {
        const auto bytes = attribute(name, url);
        return bytes ? items::decodeDate(device_.programLog(), *bytes) : std::nullopt;
    }
    std::optional<Date> trashDate(const URL& url) { return dateAttribute(items::LocalItem::xattrTrashDateName, url); }
    std::optional<std::string> putBack(const URL& url) {
        const auto bytes = attribute(items::LocalItem::xattrTrashPutBackName, url);
        return bytes ? items::decodeString(device_.programLog(), *bytes) : std::nullopt;
    }
    static void setAttribute(const std::string& path, const std::string& name, const Bytes& value) {
        testing::setUserAttribute(path, name, textOf(value));
    }
    static void setTrashDate(const std::string& path, Date date) {
        setAttribute(path, items::LocalItem::xattrTrashDateName, archive::archiveRoot({date}));
    }

    testing::FakeFileOperations& operations() { return device_.fileOperations(); }
    Lines calls() { return operations().calls(); }
    /// What is logged without the sections that lookups open, and what stands in them.
    Lines ownLines() { return outsideLookups(newLines()); }
    static Lines outsideLookups(const Lines& lines) {
        Lines own;
        int depth = 0;
        for (const std::string& line : lines) {
            const bool opens = line.starts_with("[DEBUG] ┏");
            if (opens && (depth > 0 || line.starts_with("[DEBUG] ┏ fetching "))) ++depth;
            if (depth == 0 && !line.starts_with("[DEBUG] putback: ")) own.push_back(line);
            if (line == "[DEBUG] ┗" && depth > 0) --depth;
        }
        return own;
    }
    static Error collision(const std::string& identifier, const std::string& name) {
        return {ErrorDomain::host,
                hostframework::kFilenameCollision,
                {{hostframework::kErrorItemIdentifier, identifier},
                 {hostframework::kErrorItemName, name},
                 {kErrorMessage, "\"" + name + "\" is already there"}}};
    }
    static Error fileExists(const URL& colliding) {
        return {ErrorDomain::generalFile, kFileExists, {{hostframework::kErrorCollidingURL, colliding.path()}}};
    }

    const Application notes_ = application("notes");
    URL documents_ = URL::file("/");
};

}  // namespace tarnwell::provider
