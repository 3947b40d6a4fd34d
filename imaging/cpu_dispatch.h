// Run-time choice among the kernels' paths: portable, AVX2 and AVX-512. The
// shipped build targets baseline x86-64; wider paths are compiled per function
// with target attributes and picked here, so one module runs on every machine.
#pragma once

namespace rawfx::cpu {

// The paths, narrowest first.
enum class Path { Portable, AVX2, AVX512 };

// True when the processor and the OS support AVX2 and FMA (detected once).
bool HasAVX2();

// True when they support AVX-512 with the F, VL, BW and DQ extensions (detected once).
bool HasAVX512();

// True when kernels should take that path: supported and not excluded by LimitPaths.
bool UseAVX2();
bool UseAVX512();

// Keeps the kernels to paths no wider than `widest` (Path::AVX512: all the
// machine has), so tests can prove every path gives the same bytes. Not for
// use while a run is going.
void LimitPaths(Path widest);

}  // namespace rawfx::cpu
