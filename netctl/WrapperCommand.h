// Runs one command line of the platform's wrapper tools through the shell and
// copies its output into the debug log.
#pragma once

#include <functional>

// Failure messages of the two callers; they differ on purpose.
inline constexpr const char* kIptablesCommandFailure = "SEND PROBEMOND NDC COMMAND - FAIL %s";
inline constexpr const char* kIpCommandFailure = "SEND PROBEMOND NDC COMMAND - FAIL %s\n";

namespace probemond {

// Starts a command line and hands back its output piece by piece.
class CommandExecutor {
public:
    virtual ~CommandExecutor() = default;
    // Returns false when the command could not be started.
    virtual bool execute(const char* command, const std::function<void(const char* piece)>& onOutput) = 0;
};

// The real one: popen, output read in pieces of at most 1023 characters.
class PopenCommandExecutor : public CommandExecutor {
public:
    bool execute(const char* command, const std::function<void(const char* piece)>& onOutput) override;
};

}  // namespace probemond

// True when the command was started, whatever it printed or returned.
bool runWrapperCommand(probemond::CommandExecutor& executor, const char* command, const char* failureFormat);
