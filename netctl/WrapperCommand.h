// Runs one command line of the platform's wrapper tools through the shell and
// copies its output into the debug log.
#pragma once

#include <functional>

#include "netctl/CommandFormat.h"

namespace probemond {

// executeForStatus when the command could not be started, or when it was but
// ended without an exit status (a signal).
inline constexpr int kNotStarted = -1;
inline constexpr int kNoExitStatus = -2;

// Starts a command line and hands back its output piece by piece.
class CommandExecutor {
public:
    virtual ~CommandExecutor() = default;
    // Returns false when the command could not be started.
    virtual bool execute(const char* command, const std::function<void(const char* piece)>& onOutput) = 0;
    // The same, for the one kind of line whose answer is its exit status: 0
    // to 255, kNotStarted or kNoExitStatus.
    virtual int executeForStatus(const char* command, const std::function<void(const char* piece)>& onOutput) = 0;
};

// The real one: popen, output read in pieces of at most 1023 characters.
class PopenCommandExecutor : public CommandExecutor {
public:
    bool execute(const char* command, const std::function<void(const char* piece)>& onOutput) override;
    int executeForStatus(const char* command, const std::function<void(const char* piece)>& onOutput) override;
};

// One of the two wrapper tools: how each of its command lines begins, and the
// message logged when one cannot be started.
struct WrapperTool {
    const char* prefix;
    const char* failureFormat;
};

// -w: wait for the xtables lock instead of failing while another process holds it.
inline constexpr WrapperTool kIptables{"/system/bin/iptables-wrapper-1.0 -w ", "SEND PROBEMOND NDC COMMAND - FAIL %s"};
// IPv4 rules only. Its failure message ends in a line end; the two differ on purpose.
inline constexpr WrapperTool kIp{"/system/bin/ip-wrapper-1.0 -4 ", "SEND PROBEMOND NDC COMMAND - FAIL %s\n"};

// A command line as it was run.
struct CommandRun {
    bool started;  // whatever the tool then printed or returned
    char line[kCommandSize];
};

// Formats `tool`'s prefix followed by the arguments and runs the line. A line
// of kCommandSize bytes or more ends the process instead of being cut short.
CommandRun runCommand(CommandExecutor& executor, const WrapperTool& tool, const char* argsFormat, ...)
        __attribute__((format(printf, 3, 4)));

// True when the command was started, whatever it printed or returned.
bool runWrapperCommand(CommandExecutor& executor, const char* command, const char* failureFormat);

// A command line whose exit status the caller acts on, as it was run.
struct StatusRun {
    int status;  // what executeForStatus returned
    char line[kCommandSize];
};

// runCommand for such a line: output and a line that cannot be started are
// logged as for any line.
StatusRun runCommandForStatus(CommandExecutor& executor, const WrapperTool& tool, const char* argsFormat, ...)
        __attribute__((format(printf, 3, 4)));

// Runs `tool`'s prefix followed by `args`, a line that asks the tool a
// question (iptables -C), and returns what executeForStatus does.
int runCheck(CommandExecutor& executor, const WrapperTool& tool, const char* args);

}  // namespace probemond
