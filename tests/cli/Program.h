#pragma once

#include <sys/types.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "testing/TemporaryDirectory.h"
#include "tour/SampleDevice.h"

namespace tarnwell::testing {

/// What one run of the program left.
struct Finished {
    int status = -1;  ///< exit status; 128 + the signal's number for one that a signal ended
    std::string output;
    std::string error;

    std::vector<std::string> lines() const;
    /// Each line of the output as JSON; a line that is none fails the test.
    std::vector<nlohmann::json> json() const;
};

/// The real program as a child process. Its standard input is empty.
class ChildProgram {
public:
    enum class Person { same, nobody };
    /// Where its standard output goes: captured, a disk that is full, a reader that is gone.
    enum class Output { captured, fullDisk, noReader };
    ChildProgram(const std::vector<std::string>& arguments, const tour::EnvironmentChanges& environment, Person person,
                 Output output = Output::captured);
    /// The next line of the output without its line end, as soon as it is there; nothing when the output ends before or
    /// none comes within ten seconds. `finish` gives the whole output all the same.
    std::optional<std::string> readLine();
    /// To this child only, which must not be finished.
    void sendSignal(int signal) const;
    /// Waits for the end.
    Finished finish();

private:
    pid_t process_ = -1;
    int output_ = -1, error_ = -1;
    std::string read_;           ///< of the output, so far
    std::size_t lineBegin_ = 0;  ///< in `read_`, of the next line
};

/// True where the program is to be tested as a client of the service: what it prints and how it ends is the same.
bool throughService();

/// A sample device of its own for a test, and the program on it. Through the service, if that is what is tested: it is
/// started when the program is first run.
class Device {
public:
    Device();
    ~Device();

    Finished run(const std::vector<std::string>& arguments, const tour::EnvironmentChanges& further = {}) const;
    Finished runInto(ChildProgram::Output output, const std::vector<std::string>& arguments) const;
    ChildProgram start(const std::vector<std::string>& arguments, const tour::EnvironmentChanges& further = {}) const;
    /// As somebody without rights of his own, who owns the device: for tests of permissions.
    Finished runAsNobody(const std::vector<std::string>& arguments) const;
    /// Ends the service, if it runs: for what is done to a device while nothing runs.
    void stopService() const;
    /// Gives the device to nobody; a reason where that cannot be.
    std::optional<std::string> giveToNobody() const;

    /// The item that `info` shows; a failure of the program fails the test.
    nlohmann::json info(const std::string& item) const;
    /// Without its line end.
    std::string idOf(const std::string& path) const;

    std::string path(const std::string& relative) const { return sample_.root + "/" + relative; }
    /// Below home/Documents, the storage root.
    std::string document(const std::string& relative) const { return path("home/Documents/" + relative); }
    /// Below the documents of the application Notes.
    std::string note(const std::string& relative) const {
        return path("home/.var/app/org.example.Notes/Documents/" + relative);
    }
    std::string storeFolder() const { return path("home/.local/state/tarnwell"); }

private:
    struct RunningService;
    /// Without a bus.
    tour::EnvironmentChanges environment() const;
    tour::EnvironmentChanges environmentWith(const tour::EnvironmentChanges& further) const;
    void startService(tour::EnvironmentChanges& environment) const;
    TemporaryDirectory directory_;
    mutable std::unique_ptr<RunningService> service_;
    tour::SampleDevice sample_;
};

}  // namespace tarnwell::testing
