// Binding to the host: every host service is reached through a stub that asks
// the resolver for it on first use, keeps the address and calls through it.
#pragma once

#include <cstdint>

#include "plugin/host_types.h"

// The resolver handed to REALPluginMain; set once before any stub runs.
extern REALResolver gResolver;

// The resolver itself, for entry points kept outside the stubs.
void* HCallResolver(const char* name);

#define HOST_FN(Stub, HostName, Ret, Params, Args, Missing) Ret Stub Params;
#include "plugin/host_stubs.def"

// Guarded: resolves "CreateInstance", then answers nil for a nil class.
REALobject REALnewInstanceWithClass(REALclassRef classRef);
REALobject REALnewInstance(REALclassRef classRef);

// Computed, not resolved: the class's instance data inside object.
inline void* REALGetClassData(REALobject object, REALclassDefinition* definition) {
  return reinterpret_cast<uint8_t*>(object) + definition->dataOffset;
}

namespace rawfx {

// One row per generated stub, for tests that walk the binding.
struct HostStubInfo {
  const char* stub;
  const char* hostName;
};
extern const HostStubInfo kHostStubs[];
extern const int kHostStubCount;

}  // namespace rawfx
