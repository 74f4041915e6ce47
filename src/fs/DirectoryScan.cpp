#include "fs/DirectoryScan.h"

namespace tarnwell::fs {
namespace {

using items::ProgramLog;

unsigned defaultWalkOptions(bool recursively) {
    const unsigned always = files::kSkipHiddenFiles | files::kSkipPackageDescendants;
    return recursively ? always : always | files::kSkipSubdirectoryDescendants;
}

unsigned walkOptionsFor(const DirectoryScanOptions& options, const URL& folder) {
    if (options.directoryEnumerationOptionsFor) {
        if (auto chosen = options.directoryEnumerationOptionsFor(folder)) return *chosen;
    }
    return defaultWalkOptions(options.recursively);
}

files::WalkErrorHandler loggingErrorHandler(ProgramLog& log) {
    return [&log](const URL& url, const Error& error) {
        const bool gone = error.is(ErrorDomain::generalFile, kNoSuchFileOnRead);
        log.byExpectation(gone ? ProgramLog::Expectation::expected : ProgramLog::Expectation::unexpected,
                          "can't enumerate " + url.path() + "; " + describe(error));
        return true;
    };
}

/// One scan under way: the counter and whether the window has room left.
class Scan {
public:
    Scan(const FSEnvironment& environment, const DirectoryScanOptions& options, const DirectoryScanBody& body)
        : environment_(environment),
          options_(options),
          body_(body),
          errorHandler_(options.errorHandler ? options.errorHandler : loggingErrorHandler(environment.items.log)) {}

    Result<std::uint64_t> run() {
        for (const URL& folder : options_.urls) {
            if (!keepGoing_) break;
            auto walker = environment_.items.files.walk(folder, walkOptionsFor(options_, folder), errorHandler_);
            if (!walker) {
                environment_.items.log.error("can't create file enumerator at " + folder.path());
                continue;
            }
            if (auto walked = walk(**walker); !walked) return failure(walked.error());
            // A window that is short for this reason must not pass for the end.
            if (auto ended = (*walker)->failure()) return failure(std::move(*ended));
        }
        return counter_;
    }

private:
    Result<void> walk(files::DirectoryWalker& walker) {
        if (counter_ < options_.offset) {
            const std::uint64_t wanted = options_.offset - counter_;
            const std::uint64_t passed = walker.skip(wanted);
            counter_ += passed;
            if (passed < wanted) return {};
        }
        while (counter_ - options_.offset < options_.limit) {
            auto entry = walker.next();
            if (!entry) return {};
            ++counter_;
            if (auto delivered = body_(*entry); !delivered) return delivered;
        }
        // The entry past the window only has to exist: it is not counted, and its values are not needed.
        keepGoing_ = walker.skip(1) == 0;
        return {};
    }

    const FSEnvironment& environment_;
    const DirectoryScanOptions& options_;
    const DirectoryScanBody& body_;
    files::WalkErrorHandler errorHandler_;
    std::uint64_t counter_ = 0;
    bool keepGoing_ = true;
};

}  // namespace

Result<std::uint64_t> scan(const FSEnvironment& environment, const DirectoryScanOptions& options,
                           const DirectoryScanBody& body) {
    if (options.urls.empty() || options.limit == 0) return 0;
    return Scan(environment, options, body).run();
}

}  // namespace tarnwell::fs
