#include "plugin/entry.h"

#include "imaging/color_order.h"
#include "imaging/raw_bitmap.h"
#include "plugin/class_records.h"
#include "plugin/host_binding.h"

void* ELockObject = nullptr;
void* EUnlockObject = nullptr;

namespace {

constexpr int kPluginInterfaceVersion = 13;

// Marking and registration both follow this order.
REALclassDefinition* const kClassesInOrder[] = {
    &InterlaceEffectRawClass,
    &BarrelDistortionEfffectRaw,
    &OilPaintEffectRawClass,
    &PolarCoordinatesEffectRawClass,
};

}  // namespace

bool HostVersionSupported(double hostVersion) {
  return !(hostVersion < 2011.0) || hostVersion == 100.0;
}

void LoadCommonEntryPoints(double) {
  ELockObject = HCallResolver("REALLockObject");
  EUnlockObject = HCallResolver("REALUnlockObject");
}

void SetClassConsoleSafe(REALclassDefinition* definition) {
  definition->flags |= rawfx::kConsoleSafeFlag;
}

void SetClassWebOnly(REALclassDefinition* definition) {
  auto flags = static_cast<uint32_t>(definition->flags);
  flags = (flags & ~uint32_t{0x108}) | 0x100;
  definition->flags = static_cast<int64_t>((static_cast<uint64_t>(definition->flags) & ~uint64_t{0xFFFFFFFF}) | flags);
}

void PluginEntry() {
  const double hostVersion = REALGetRBVersion();
  if (!HostVersionSupported(hostVersion)) return;

  gCMYKRef = nullptr;
  gRGBRef = nullptr;
  LoadCommonEntryPoints(hostVersion);
  for (REALclassDefinition* record : kClassesInOrder) SetClassConsoleSafe(record);
  InitializeRawBitmapSupport();
  for (REALclassDefinition* record : kClassesInOrder) REALRegisterClass(record);
}

extern "C" void REALPluginMain(REALResolver resolver) {
  gResolver = resolver;
  using RegisterVersionFn = void (*)(int);
  // A host without the service still gets the classes; it just learns no version.
  if (auto registerVersion = reinterpret_cast<RegisterVersionFn>(gResolver("RegisterPluginVersion")))
    registerVersion(kPluginInterfaceVersion);
  PluginEntry();
}
