#pragma once

#include <memory>

#include "hostframework/ProviderEnumerator.h"

namespace tarnwell::host {

/// Ends an enumerator when its user is done with it, however that is left.
class EnumeratorHolder {
public:
    explicit EnumeratorHolder(std::shared_ptr<hostframework::ProviderEnumerator> enumerator)
        : enumerator_(std::move(enumerator)) {}
    ~EnumeratorHolder() { enumerator_->invalidate(); }
    EnumeratorHolder(const EnumeratorHolder&) = delete;
    EnumeratorHolder& operator=(const EnumeratorHolder&) = delete;
    hostframework::ProviderEnumerator& operator*() const { return *enumerator_; }
    hostframework::ProviderEnumerator* operator->() const { return enumerator_.get(); }

private:
    std::shared_ptr<hostframework::ProviderEnumerator> enumerator_;
};

}  // namespace tarnwell::host
