// Runs one effect on an image through the host, only by the class's registered
// properties and methods, with progress, Ctrl-C cancellation and error codes
// turned into messages.
#pragma once

#include <optional>
#include <vector>

#include "host/host.h"
#include "tools/rawfx/colour_option.h"
#include "tools/rawfx/effects.h"
#include "tools/rawfx/image_io.h"
#include "tools/rawfx/progress.h"

namespace rawfx::tool {

struct EffectJob {
  const EffectInfo* effect = nullptr;
  std::vector<PropertySetting> properties;
  std::optional<ColourOption> backColour;
  const Image* mask = nullptr;  // grey, the size of the input
  bool inPlace = false;         // ApplyInPlace (classes that have it)
  bool async = false;           // ApplyAsync and wait for its completion (classes that have it)
};

struct RunReport {
  double seconds = 0;
  int threads = 0;
  bool ranAsync = false;
  bool ranInPlace = false;
};

bool IsRegistered(const host::Host& host, const EffectInfo& effect);

// The result bitmap (a reference of the caller's; the source itself after an
// in-place run). ToolError with status 1 when the class is missing or refuses the
// bitmap or its settings, 128 + the signal when a signal cancelled the run.
REALobject RunEffect(host::Host& host, const EffectJob& job, REALobject source, ProgressBar& progress,
                     RunReport* report = nullptr);

}  // namespace rawfx::tool
