// The PolarCoordinatesEffectRaw class: its record (rows to follow with the effect).
#include "plugin/class_definition.h"
#include "plugin/class_records.h"

REALclassDefinition PolarCoordinatesEffectRawClass =
    rawfx::FilterClassRecord("PolarCoordinatesEffectRaw", 16, nullptr, nullptr, rawfx::kAsyncInterfaces, {});
