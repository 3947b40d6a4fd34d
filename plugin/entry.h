// Start-up of the plug-in: the exported entry point and the host-version gate.
#pragma once

#include "plugin/host_types.h"

extern "C" __attribute__((visibility("default"))) void REALPluginMain(REALResolver resolver);

void PluginEntry();
void LoadCommonEntryPoints(double hostVersion);
void SetClassConsoleSafe(REALclassDefinition* definition);
void SetClassWebOnly(REALclassDefinition* definition);

// Passes hosts from 2011 on, the version-less 100.0, and an unordered (NaN) version.
bool HostVersionSupported(double hostVersion);

extern void* ELockObject;
extern void* EUnlockObject;
