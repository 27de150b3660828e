#include "netctl/WrapperCommand.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/wait.h>

#include "common/Log.h"

namespace probemond {
namespace {

constexpr size_t kOutputLineSize = 1024;

#ifdef PROBEMOND_HOST
constexpr char kSystemBin[] = "/system/bin/";

// Host builds run the wrapper tools from $PROBEMOND_SYSTEM_BIN; the command
// text seen by callers and logs stays the device one.
const char* hostCommand(const char* command, char* mapped, size_t size) {
    const char* dir = getenv("PROBEMOND_SYSTEM_BIN");
    if (dir == nullptr || dir[0] == '\0') return command;
    if (strncmp(command, kSystemBin, sizeof(kSystemBin) - 1) != 0) return command;
    formatBounded(mapped, size, "%s/%s", dir, command + sizeof(kSystemBin) - 1);
    return mapped;
}
#endif

// Whether the command could be started; `status` gets its wait status, or
// -1 when none could be read.
bool runPopen(const char* command, const std::function<void(const char*)>& onOutput, int* status) {
#ifdef PROBEMOND_HOST
    char mapped[kCommandSize + PATH_MAX];
    command = hostCommand(command, mapped, sizeof(mapped));
#endif
    // "e": the read end must not leak into commands started concurrently by the other manager.
    FILE* out = popen(command, "re");
    if (out == nullptr) return false;
    char line[kOutputLineSize];
    memset(line, 0, sizeof(line));
    while (fgets(line, sizeof(line), out) != nullptr) onOutput(line);
    *status = pclose(out);
    return true;
}

void logOutput(const char* piece) { LOGD("PROBEMOND EXECNETD RESP %s", piece); }

}  // namespace

bool PopenCommandExecutor::execute(const char* command, const std::function<void(const char*)>& onOutput) {
    int status;  // the tools' exit status tells nothing the daemon acts on
    return runPopen(command, onOutput, &status);
}

int PopenCommandExecutor::executeForStatus(const char* command, const std::function<void(const char*)>& onOutput) {
    int status;
    if (!runPopen(command, onOutput, &status)) return kNotStarted;
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : kNoExitStatus;
}

CommandRun runCommand(CommandExecutor& executor, const WrapperTool& tool, const char* argsFormat, ...) {
    CommandRun run{};
    va_list args;
    va_start(args, argsFormat);
    vformatBounded(run.line, sizeof(run.line), tool.prefix, argsFormat, args);
    va_end(args);
    run.started = runWrapperCommand(executor, run.line, tool.failureFormat);
    return run;
}

bool runWrapperCommand(CommandExecutor& executor, const char* command, const char* failureFormat) {
    const bool started = executor.execute(command, logOutput);
    if (!started) LOGE(failureFormat, command);
    return started;
}

StatusRun runCommandForStatus(CommandExecutor& executor, const WrapperTool& tool, const char* argsFormat, ...) {
    StatusRun run{};
    va_list args;
    va_start(args, argsFormat);
    vformatBounded(run.line, sizeof(run.line), tool.prefix, argsFormat, args);
    va_end(args);
    run.status = executor.executeForStatus(run.line, logOutput);
    if (run.status == kNotStarted) LOGE(tool.failureFormat, run.line);
    return run;
}

int runCheck(CommandExecutor& executor, const WrapperTool& tool, const char* args) {
    return runCommandForStatus(executor, tool, "%s", args).status;
}

}  // namespace probemond
