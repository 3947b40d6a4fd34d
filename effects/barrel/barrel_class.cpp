// The BarrelDistortEffectRaw class: its record (rows to follow with the effect).
#include "plugin/class_definition.h"
#include "plugin/class_records.h"

REALclassDefinition BarrelDistortionEfffectRaw =
    rawfx::FilterClassRecord("BarrelDistortEffectRaw", 240, nullptr, nullptr, rawfx::kAsyncInterfaces, {});
