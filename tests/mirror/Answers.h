#pragma once

#include "session/Session.h"
#include "tests/mirror/Message.h"

namespace tarnwell::mirror {

/// Answers messages (Roles.h) by asking a session, in this process or over the bus.
class Answers {
public:
    explicit Answers(session::Session& session) : session_(session) {}
    Message to(const Message& message);

private:
    Message anchor(const std::string& container);
    Message list(const std::string& container);
    Message item(const std::string& path);
    Message identify(const Message& message);
    Message status();
    Message operate(const Message& message);
    Message changes(const std::string& container, const std::string& anchor);

    session::Session& session_;
};

}  // namespace tarnwell::mirror
