#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/Measure.h"
#include "platform/base/Descriptor.h"

namespace tarnwell::bench {

/// A program that runs beside this one and answers it. It is ended with this.
class ServerProcess {
public:
    /// Its standard input and output are pipes to this program; what it says otherwise goes to the file.
    static Outcome<std::unique_ptr<ServerProcess>> start(std::vector<std::string> arguments, const std::string& home,
                                                         const std::string& log);
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    int input() const { return input_.get(); }
    int output() const { return output_.get(); }
    std::uint64_t residentKilobytes() const;
    /// Waits some seconds for it to end by itself: false where it does not.
    bool waitForEnd();

private:
    ServerProcess(pid_t process, Descriptor input, Descriptor output)
        : process_(process), input_(std::move(input)), output_(std::move(output)) {}
    pid_t process_;
    Descriptor input_, output_;
};

/// Writes the whole text; false where the other side is gone.
bool sendAll(int descriptor, const std::string& text);
/// Reads to the end of a line that begins with the prefix, and gives everything up to there.
Outcome<std::string> readThrough(int descriptor, const std::string& prefix);

}  // namespace tarnwell::bench
