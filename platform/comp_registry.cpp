/* The component registry: records by component id, interface tables through their factories. */
#include <mutex>

#include "comp_registry.h"

namespace {

constexpr u32 MAX_COMPONENTS = 256;

std::mutex g_mutex; /* guards the two below */
const QorComponentInfo *g_components[MAX_COMPONENTS];
u32 g_componentCount;

const QorComponentInfo *findComponent(u32 componentId)
{
    for (u32 i = 0; i < g_componentCount; ++i) {
        if (g_components[i]->componentId == componentId) {
            return g_components[i];
        }
    }
    return nullptr;
}

} // namespace

u32 COMP_RegisterComponentInfo(const QorComponentInfo *info)
{
    if (info == nullptr || info->factory == nullptr) {
        return QOR_FAIL;
    }
    const std::lock_guard lock(g_mutex);
    const QorComponentInfo *known = findComponent(info->componentId);
    if (known != nullptr) {
        return known == info ? QOR_OK : QOR_FAIL;
    }
    if (g_componentCount == MAX_COMPONENTS) {
        return QOR_FAIL;
    }
    g_components[g_componentCount++] = info;
    return QOR_OK;
}

u32 COMP_GetVTable(u32 componentId, u32 interfaceId, void **table)
{
    if (table == nullptr) {
        return QOR_FAIL;
    }
    *table = nullptr;

    QorFactory *factory = nullptr;
    {
        const std::lock_guard lock(g_mutex);
        const QorComponentInfo *info = findComponent(componentId);
        factory = info != nullptr ? info->factory : nullptr;
    }
    if (factory == nullptr || factory->vtbl == nullptr ||
        factory->vtbl->createInstance == nullptr) {
        return QOR_FAIL;
    }

    /* Foreign code, called with no lock held: a factory may register or look up components. */
    void *object = nullptr;
    if (factory->vtbl->createInstance(factory, interfaceId, &object) != 0 || object == nullptr) {
        return QOR_FAIL;
    }
    *table = *static_cast<void **>(object);
    return *table != nullptr ? QOR_OK : QOR_FAIL;
}
