// Ctrl-C: the signal handler only raises a flag; the run polls it between rows
// (through the engine's progress) and cancels through the engine.
#pragma once

namespace rawfx::tool {

void InstallInterruptHandler();
bool Interrupted();

}  // namespace rawfx::tool
