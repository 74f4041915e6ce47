#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/load/parts/ServedProgram.h"

namespace tarnwell::load {

/// Somebody who looks at a folder as a file dialog does, page by page of 200 items, again and again, while others
/// misbehave. Each answer is checked and its time taken.
class HonestClient {
public:
    explicit HonestClient(const ServedProgram& service);
    ~HonestClient();
    HonestClient(const HonestClient&) = delete;
    HonestClient& operator=(const HonestClient&) = delete;

    /// Ends, and says what was wrong: a failed or an incomplete answer, too few pages, or one in a hundred pages took
    /// longer than allowed. "" for nothing.
    std::string verdict();

    static constexpr std::chrono::milliseconds kLongest{50};

private:
    void look();

    std::unique_ptr<bus::BusSession> client_;
    std::string folder_, trouble_;
    std::vector<std::chrono::steady_clock::duration> taken_;
    std::atomic<bool> isEnding_ = false;
    std::thread thread_;
};

}  // namespace tarnwell::load
