#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/operations/Operations.h"
#include "testing/CapturingLog.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::operations {

/// The whole tree below a folder, as text by relative path: kind, permissions, content. Folders of the trash too.
std::map<std::string, std::string> treeOf(const std::string& path);
/// Names below the folder that begin like temporaries.
std::vector<std::string> temporariesBelow(const std::string& path);
/// The sentence of a failed result, "" for a success.
template <typename T>
std::string sentence(const Result<T>& result) {
    if (result) return {};
    const auto found = result.error().userInfo.find(kErrorMessage);
    return found != result.error().userInfo.end() ? found->second : "(no sentence)";
}

/// A storage root in a private folder, a store, and a folder outside. Afterwards no temporary may be left anywhere.
struct Workplace {
    /// In the folder; what stands there already is used as it is.
    explicit Workplace(const std::string& base);
    ~Workplace();
    Place place(const std::string& relative) const { return {storage, relative}; }
    std::string path(const std::string& relative = {}) const;
    std::string outside(const std::string& relative = {}) const;
    void file(const std::string& relative, std::string_view content = "content") const;
    void folder(const std::string& relative) const;
    std::string read(const std::string& relative) const;
    bool exists(const std::string& relative) const;
    std::map<std::string, std::string> tree() const { return treeOf(path()); }
    std::size_t records() const;

    std::string base;
    Roots roots;
    testing::CapturingLog log;
    std::unique_ptr<store::Store> store;
    std::shared_ptr<const Root> storage;
    std::unique_ptr<Context> context;
};

class OperationsTest : public ::testing::Test {
protected:
    void TearDown() override {
        EXPECT_EQ(temporariesBelow(directory_.path()), std::vector<std::string>());
        EXPECT_EQ(at_.records(), 0u);
    }
    const Context& context() const { return *at_.context; }

    testing::TemporaryDirectory directory_;
    Workplace at_{directory_.path()};
};

}  // namespace tarnwell::operations
