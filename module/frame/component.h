/* Registration of the module with the component registry. Phase 1, host start-up thread. */
#ifndef FRAME_COMPONENT_H
#define FRAME_COMPONENT_H

#include "l2rsm_component.h"

QOR_BEGIN_C

/* Completes the exported table and registers the component record: 0, or 1 when refused. */
QOR_API u32 QOR_L2RES_FactoryInit(void);

/* Both return the module's one interface object. */
QOR_API L2RsmInterface *QOR_L2RES_FactoryGetVtbl(void);
QOR_API L2RsmInterface *QOR_L2RES_FactoryGetFunc(void);

QOR_END_C

#endif
