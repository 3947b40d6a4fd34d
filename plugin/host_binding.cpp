#include "plugin/host_binding.h"

REALResolver gResolver = nullptr;

void* HCallResolver(const char* name) { return gResolver(name); }

namespace {

// Looks the host name up while the cache is empty; a miss is asked again next call.
inline void* Bind(void*& cache, const char* hostName) {
  if (!cache) cache = gResolver(hostName);
  return cache;
}

}  // namespace

#define HOST_FN(Stub, HostName, Ret, Params, Args, Missing)           \
  Ret Stub Params {                                                   \
    static void* cache = nullptr;                                     \
    void* entry = Bind(cache, HostName);                              \
    if (!entry) return Missing;                                       \
    return reinterpret_cast<Ret(*) Params>(entry) Args;               \
  }
#include "plugin/host_stubs.def"

namespace {

void*& CreateInstanceCache() {
  static void* cache = nullptr;
  return cache;
}

}  // namespace

REALobject REALnewInstanceWithClass(REALclassRef classRef) {
  void* entry = Bind(CreateInstanceCache(), "CreateInstance");
  if (!entry || !classRef) return nullptr;
  return reinterpret_cast<REALobject (*)(REALclassRef)>(entry)(classRef);
}

REALobject REALnewInstance(REALclassRef classRef) { return REALnewInstanceWithClass(classRef); }

namespace rawfx {

const HostStubInfo kHostStubs[] = {
#define HOST_FN(Stub, HostName, Ret, Params, Args, Missing) {#Stub, HostName},
#include "plugin/host_stubs.def"
};
const int kHostStubCount = static_cast<int>(sizeof(kHostStubs) / sizeof(kHostStubs[0]));

}  // namespace rawfx
