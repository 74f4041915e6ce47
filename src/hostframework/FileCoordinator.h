#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tarnwell::hostframework {

/// Keeps work on the same paths apart: readers and one writer a path, where a path conflicts with itself, with those
/// above and those below it. Any thread may call any operation.
///
/// F1: no two claims that conflict, one of them a writer's, are granted at once.
/// F2: a claim is granted as soon as no earlier one that it conflicts with is held or waiting, so that none waits
///     forever. All paths of a claim are taken at once, so that claims cannot wait for each other in a circle.
class FileCoordinator {
    struct State;
    struct Claim;

public:
    enum class Use { reading, writing };
    struct Path {
        std::string path;  ///< absolute, without a trailing slash
        Use use;
    };

    /// Holds the paths until it goes. May outlive the coordinator.
    class Grant {
    public:
        Grant() = default;
        Grant(Grant&&) noexcept = default;
        Grant& operator=(Grant&& other) noexcept;
        Grant(const Grant&) = delete;
        Grant& operator=(const Grant&) = delete;
        ~Grant() { release(); }
        /// Lets go now. Claims that waited for this one are granted before it returns.
        void release();

    private:
        friend class FileCoordinator;
        Grant(std::shared_ptr<State> state, std::uint64_t number) : state_(std::move(state)), number_(number) {}
        std::shared_ptr<State> state_;
        std::uint64_t number_ = 0;
    };

    FileCoordinator();
    ~FileCoordinator();
    FileCoordinator(const FileCoordinator&) = delete;
    FileCoordinator& operator=(const FileCoordinator&) = delete;

    /// Takes a place in the order now and calls `granted` once: on the calling thread before this returns, or later on
    /// the thread of who lets go. It must not block.
    void claim(std::vector<Path> paths, std::move_only_function<void(Grant)> granted);
    /// Blocks until the claim is granted. Not while holding a claim that it conflicts with.
    Grant wait(std::vector<Path> paths);

private:
    const std::shared_ptr<State> state_;
};

}  // namespace tarnwell::hostframework
