#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "platform/store/Store.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::store {

/// A store in a private folder, which can be closed and opened again.
class StoreFixture : public ::testing::Test {
protected:
    StoreFixture() { open(); }
    void open() {
        store_.reset();
        StoreOptions options;
        options.directory = directory_.path("state");
        store_ = Store::open(options).value();
    }

    testing::TemporaryDirectory directory_;
    std::unique_ptr<Store> store_;
};

}  // namespace tarnwell::store
