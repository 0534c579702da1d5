/* The component registry of the process. Any thread, concurrently. */
#ifndef COMP_REGISTRY_H
#define COMP_REGISTRY_H

#include "qor_component.h"
#include "qor_types.h"

QOR_BEGIN_C

/*
 * Makes a component known by its record, which must live as long as the process. 0, or 1: null
 * record or factory, or another record holds the id already.
 */
QOR_API u32 COMP_RegisterComponentInfo(const QorComponentInfo *info);

/*
 * The table of an interface of a component: asks the component's factory for an instance and
 * stores its first field in *table. 0, or 1 with *table null: no such component or interface.
 */
QOR_API u32 COMP_GetVTable(u32 componentId, u32 interfaceId, void **table);

QOR_END_C

#endif
