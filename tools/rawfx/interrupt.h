// SIGINT, SIGTERM and SIGHUP. While the engine runs an effect, a signal only
// raises a flag: the run polls it between rows (through the engine's progress)
// and cancels through the engine, and an alarm one second later ends the process
// if the run has not stopped by then. At any other moment the handler itself
// removes the temporary output file, if one exists, and ends the process. Either
// way the exit status is 128 + the signal and the output path holds its old file
// or nothing.
#pragma once

#include <string>

namespace rawfx::tool {

void InstallInterruptHandler();
bool Interrupted();
int InterruptSignal();             // the signal received; 0 when none
int InterruptedStatus();           // 128 + that signal
std::string InterruptedMessage();  // "interrupted by SIGTERM; nothing was written"

// While one exists, signals cancel through the engine instead of ending the process.
class EngineCancelScope {
 public:
  EngineCancelScope();
  ~EngineCancelScope();
  EngineCancelScope(const EngineCancelScope&) = delete;
  EngineCancelScope& operator=(const EngineCancelScope&) = delete;
};

// The temporary output file the handler removes before ending the process: set
// when the file is created, cleared once it is renamed into place or removed.
void SetTemporaryFile(const std::string& path);
void ClearTemporaryFile();

}  // namespace rawfx::tool
