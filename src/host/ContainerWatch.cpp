#include "host/ContainerWatch.h"

namespace tarnwell::host {

using hostframework::ItemIdentifier;

namespace {

bool isView(const ItemIdentifier& identifier) {
    return identifier == hostframework::kRootContainer || identifier == hostframework::kWorkingSetContainer ||
           identifier == hostframework::kAllDirectoriesContainer;
}

}  // namespace

bool concerns(const ItemIdentifier& signalled, const ItemIdentifier& watched) {
    return signalled == watched || isView(signalled) || isView(watched);
}

ContainerWatch::ContainerWatch(EnumeratorPool& pool, HostProviderManager& manager, ItemIdentifier container,
                               std::function<void()> changed)
    : pool_(pool),
      manager_(manager),
      container_(std::move(container)),
      handler_(manager.addSignalHandler(
          [watched = container_, changed = std::move(changed)](const ItemIdentifier& signalled) {
              if (concerns(signalled, watched)) changed();
          })) {
    pool_.addWatch(container_);
}

ContainerWatch::~ContainerWatch() {
    manager_.removeSignalHandler(handler_);
    pool_.removeWatch(container_);
}

}  // namespace tarnwell::host
