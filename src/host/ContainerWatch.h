#pragma once

#include <functional>

#include "host/EnumeratorPool.h"
#include "host/HostProviderManager.h"
#include "session/Session.h"

namespace tarnwell::host {

/// True when something that was signalled for the one container may have happened in the other. Providers signal the
/// views for whatever happens in any folder, and applications that come and go for the working set alone.
bool concerns(const hostframework::ItemIdentifier& signalled, const hostframework::ItemIdentifier& watched);

/// Calls back, on the manager's queue, whenever its container is signalled; keeps an enumerator of the container in the
/// pool, because only what has one is signalled. Pool and manager outlive it; it does not go within a call back.
class ContainerWatch : public session::Watch {
public:
    ContainerWatch(EnumeratorPool& pool, HostProviderManager& manager, hostframework::ItemIdentifier container,
                   std::function<void()> changed);
    ~ContainerWatch() override;
    ContainerWatch(const ContainerWatch&) = delete;
    ContainerWatch& operator=(const ContainerWatch&) = delete;

private:
    EnumeratorPool& pool_;
    HostProviderManager& manager_;
    const hostframework::ItemIdentifier container_;
    const HostProviderManager::HandlerID handler_;
};

}  // namespace tarnwell::host
