#pragma once

#include <functional>

#include "host/ProgramContext.h"
#include "platform/search/Finder.h"
#include "session/Session.h"

namespace tarnwell::host {

/// Answers what a client looks for: reads the query, finds the places that it names, brings the index up to date, and
/// looks each hit up, since nothing is told as the index remembers it. Any thread may call it.
class SearchService {
public:
    explicit SearchService(ProgramContext& context) : context_(context) {}

    /// EINVAL with a sentence for what cannot be a query. Of a place that is none the error names it
    /// (session::kErrorItemIdentifier): no such item, or ENOTDIR for a document.
    Result<session::SearchResult> search(const session::SearchRequest& request,
                                         const std::function<void(std::uint64_t)>& progress) const;

private:
    Result<search::Search> read(const session::SearchRequest& request) const;
    Result<void> addNamed(const std::string& place, std::vector<std::string>& folders) const;
    Result<void> addPlace(const hostframework::ItemIdentifier& folder, std::vector<std::string>& folders) const;
    Result<std::vector<search::Hit>> find(const search::Search& search,
                                          const std::function<void(std::uint64_t)>& progress) const;

    ProgramContext& context_;
};

}  // namespace tarnwell::host
