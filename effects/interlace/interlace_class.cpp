// The InterlaceEffectRaw class: its record (rows to follow with the effect).
#include "plugin/class_definition.h"
#include "plugin/class_records.h"

REALclassDefinition InterlaceEffectRawClass =
    rawfx::FilterClassRecord("InterlaceEffectRaw", 40, nullptr, nullptr, rawfx::kSyncInterfaces, {});
