#pragma once

#include <sys/types.h>

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Descriptor.h"
#include "tests/mirror/Message.h"

namespace tarnwell::mirror {

/// This test program, started again to do something else, which answers one message with one.
class ChildProcess {
public:
    /// The arguments choose what it is (Main.cpp). Stops the test when it cannot be started.
    explicit ChildProcess(const std::vector<std::string>& arguments);
    /// Ends it, if it still runs, with SIGKILL.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool tell(const Message& message) { return send(to_.get(), message); }
    std::optional<Message> hear() { return receive(from_.get()); }
    /// True when a message, or its end, waits to be heard.
    bool hasAnswered() const;

    /// Lets it end by itself; its exit status, 128 + the signal's number for one that a signal ended.
    int end();
    void kill();
    void signal(int number) { ::kill(process_, number); }

private:
    int wait();

    pid_t process_ = -1;
    Descriptor to_, from_;
};

}  // namespace tarnwell::mirror
