#include "applibraries/AppLibraryIndexCleanup.h"

#include <atomic>
#include <cerrno>
#include <memory>
#include <semaphore>

#include "applibraries/ListText.h"

namespace tarnwell::applibraries {

namespace {

/// The answer to one request. Only the first one counts, so nothing is touched after the waiting thread went on.
class Reply {
public:
    Reply(items::ProgramLog& log, const std::vector<std::string>& domains) : log_(log), domains_(listText(domains)) {}

    void answer(const std::optional<Error>& error) {
        if (answered_.exchange(true)) return;
        if (error) {
            log_.error("can't delete searchable items from " + domains_ + "; " + describe(*error));
        } else {
            log_.debug("items from domains " + domains_ + " removed from index");
        }
        semaphore_.release();
    }
    void wait() { semaphore_.acquire(); }

private:
    items::ProgramLog& log_;
    const std::string domains_;
    std::atomic<bool> answered_ = false;
    std::binary_semaphore semaphore_{0};
};

/// Held by the completion alone: its end without an answer is the answer.
struct DropGuard {
    std::shared_ptr<Reply> reply;
    ~DropGuard() { reply->answer(posixError(ECANCELED, "the host dropped the request")); }
};

}  // namespace

void deleteSearchableItemsOfDomains(const items::Environment& environment, const std::vector<std::string>& domains) {
    auto reply = std::make_shared<Reply>(environment.log, domains);
    hostframework::Completion completion = [guard = std::make_shared<DropGuard>(reply)](
                                               const std::optional<Error>& error) { guard->reply->answer(error); };
    environment.providerManager.deleteSearchableItemsWithDomainIdentifiers(domains, std::move(completion));
    reply->wait();
}

}  // namespace tarnwell::applibraries
