#include "imaging/mp_filter.h"

#include "plugin/host_binding.h"

void* GetProgressProc(REALobject target) {
  if (!target) return nullptr;
  return REALLoadObjectMethod(target, kOnProgressDecl);
}
