// The OilPaintEffectRaw class: its record (rows to follow with the effect).
#include "plugin/class_definition.h"
#include "plugin/class_records.h"

REALclassDefinition OilPaintEffectRawClass =
    rawfx::FilterClassRecord("OilPaintEffectRaw", 16, nullptr, nullptr, rawfx::kSyncInterfaces, {});
