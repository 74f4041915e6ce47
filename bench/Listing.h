#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bench/Measure.h"
#include "bench/SampleDevice.h"
#include "hostframework/ProviderEnumerator.h"
#include "hostframework/ProviderItem.h"

namespace tarnwell::bench {

/// Asks an enumerator for all pages; the items go as soon as they were counted.
Outcome<Tally> listAllPages(hostframework::ProviderEnumerator& enumerator);

/// Lists a folder with its enumerator, all pages, to an observer that lets go of each item as soon as it has seen it.
/// `afterPage` is told what each page took.
Outcome<Tally> listInPages(SampleDevice& device, const std::string& folder,
                           const std::function<void(const Cost&)>& afterPage = {});

enum class Recursion { direct, below };
/// Makes an item of each entry that one scan of the folder gives, as enumerators do, and lets go of it. `seen` may have
/// a look.
Outcome<Tally> scanToItems(SampleDevice& device, const std::string& folder, Recursion recursion,
                           const std::function<void(const hostframework::ProviderItem&)>& seen = {});

/// Lists a folder and those below it, each with an enumerator of its own, as a host does that walks a tree.
Outcome<Tally> listEachFolder(SampleDevice& device, const std::string& folder);

}  // namespace tarnwell::bench
