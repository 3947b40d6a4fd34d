// Run-time choice between the portable kernels and the AVX2 ones. The shipped
// build targets baseline x86-64; wider paths are compiled per function with
// target attributes and picked here, so one module runs on every machine.
#pragma once

namespace rawfx::cpu {

// True when the processor and the OS support AVX2 (detected once).
bool HasAVX2();

// True when kernels should take their AVX2 path: supported and not turned off.
bool UseAVX2();

// Turns the AVX2 paths off (true) or back on, so tests can prove both paths
// give the same bytes. Not for use while a run is going.
void ForceScalar(bool scalar);

}  // namespace rawfx::cpu
