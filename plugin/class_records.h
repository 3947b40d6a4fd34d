// The four class records, in the order they are marked and registered.
#pragma once

#include "plugin/host_types.h"

extern REALclassDefinition InterlaceEffectRawClass;
extern REALclassDefinition BarrelDistortionEfffectRaw;  // registers "BarrelDistortEffectRaw"
extern REALclassDefinition OilPaintEffectRawClass;
extern REALclassDefinition PolarCoordinatesEffectRawClass;
