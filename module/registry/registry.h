/*
 * The module's own view of the two registries: one load that sees a hook whole, for the callers
 * inside the module that index the hook table directly.
 */
#ifndef REGISTRY_REGISTRY_H
#define REGISTRY_REGISTRY_H

#include <atomic>

#include "l2rsm_registry.h"

/* The hook of a type below L2RES_HOOK_COUNT, or null. */
inline L2ResHook HookOf(u32 hookType)
{
    return std::atomic_ref(g_qorl2ResHookTbl[hookType].hook).load(std::memory_order_acquire);
}

#endif
