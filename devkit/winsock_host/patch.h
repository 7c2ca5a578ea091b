// Replaces import slots by value: a slot with the address of a platform function that has a
// replacement gets the replacement, whether it was imported by name, by ordinal or late.
//
// The system modules that implement these functions, the host and the base provider keep their own
// slots, so every chain ends at the platform.
#pragma once

#include <windows.h>

namespace winsock_host {

// Called before anything is patched, from one thread.
void AddReplacement(void* platform_function, void* replacement);
void NeverPatch(HMODULE module);

// The replacement for a function's address, or the address itself. Any thread.
void* ReplacementFor(void* function);

// Patches one module, or every module that is loaded now; patching twice is harmless. Any
// thread; modules that come or go meanwhile are held off by the loader's lock.
void PatchModule(HMODULE module);
void PatchNewModules();

bool IsInModule(HMODULE module, const void* address);

}  // namespace winsock_host
