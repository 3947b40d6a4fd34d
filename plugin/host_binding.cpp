#include "plugin/host_binding.h"

REALResolver gResolver = nullptr;

void* HCallResolver(const char* name) { return gResolver(name); }

namespace {

using rawfx::ArrayAccess;
using rawfx::ArrayValueArg;
using rawfx::BindHost;

// Stage one of an array accessor: the host routine that names an array's element routine.
using ElementRoutineOf = void* (*)(REALarray array);

// Stage two: asks the array for its element routine and calls it when both
// routines exist; a Get also needs somewhere to put the element.
template <ArrayAccess Access, typename T>
void AccessArrayElement(void* routineOf, REALarray array, int64_t index, ArrayValueArg<Access, T> value) {
  if (!routineOf) return;
  void* element = reinterpret_cast<ElementRoutineOf>(routineOf)(array);
  if (!element) return;
  if constexpr (Access == ArrayAccess::Get) {
    if (value) *value = reinterpret_cast<T (*)(REALarray, int64_t)>(element)(array, index);
  } else {
    reinterpret_cast<void (*)(REALarray, int64_t, T)>(element)(array, index, value);
  }
}

}  // namespace

// The plain pattern: bind on first use, then call through with the stub's own
// arguments; while the host lacks the service, answer the missing value.
#define HOST_FN(Stub, HostName, Ret, Params, Args, Missing)                             \
  Ret Stub Params {                                                                     \
    static void* cache = nullptr;                                                       \
    void* entry = BindHost(cache, HostName);                                            \
    if (!entry) return Missing;                                                         \
    return reinterpret_cast<Ret(*) Params>(entry) Args;                                 \
  }
#define HOST_ARRAY_FN(Stub, HostName, Access, T)                                          \
  void Stub(REALarray array, int64_t index, ArrayValueArg<ArrayAccess::Access, T> value) { \
    static void* cache = nullptr;                                                         \
    AccessArrayElement<ArrayAccess::Access, T>(BindHost(cache, HostName), array, index, value); \
  }
#include "plugin/host_stubs.def"

namespace rawfx {

const HostStubInfo kHostStubs[] = {
#define HOST_FN(Stub, HostName, Ret, Params, Args, Missing) {#Stub, HostName},
#define HOST_ARRAY_FN(Stub, HostName, Access, T) {#Stub, HostName},
#include "plugin/host_stubs.def"
};
const int kHostStubCount = static_cast<int>(sizeof(kHostStubs) / sizeof(kHostStubs[0]));

}  // namespace rawfx
