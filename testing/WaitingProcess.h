#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/base/Descriptor.h"

namespace tarnwell::testing {

/// A child that waits for its end, which comes with this object.
class WaitingProcess {
public:
    /// A fork of this process of one thread, which does `prepare` before it waits; the text that it returns, "" for a
    /// success, is the trouble.
    static WaitingProcess forked(const std::function<std::string()>& prepare = [] { return std::string(); });
    /// A shell that does the command in a sandbox of bubblewrap before it waits. Its root is in memory and has the
    /// host's programs; `arguments` say what else bubblewrap shall do. With `flatpakInfo` the sandbox has a file
    /// ".flatpak-info" in its root, made as Flatpak has bubblewrap make it.
    static WaitingProcess inSandbox(const std::vector<std::string>& arguments, const std::string& command = ":",
                                    const std::string* flatpakInfo = nullptr);
    /// The same in bare arguments, without a root.
    static WaitingProcess inBareSandbox(const std::vector<std::string>& arguments, const std::string& command = ":",
                                        const std::string* flatpakInfo = nullptr);

    WaitingProcess(WaitingProcess&& other) noexcept;
    ~WaitingProcess();

    pid_t number() const { return waiting_; }
    /// Why it does not wait as it was asked to; empty when it does.
    const std::string& trouble() const { return trouble_; }
    /// Ends it; it keeps its number until this object goes.
    void end();

private:
    WaitingProcess() = default;
    static WaitingProcess started(const std::function<int(int told, int end)>& body);
    std::string readToLineEnd(int told) const;

    pid_t child_ = -1;    ///< what this process waits for
    pid_t waiting_ = -1;  ///< the one that waits: the child or one of its children
    Descriptor end_;      ///< closing it ends the one that waits
    std::string trouble_;
};

/// A pidfd of a process that has not been waited for.
Descriptor descriptorOf(pid_t process);

/// True where bubblewrap can make a sandbox; says why not.
bool canMakeSandboxes(std::string& reason);

}  // namespace tarnwell::testing
