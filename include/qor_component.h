/*
 * The component object model of the forwarding manager: a component registers one record, the
 * record leads to a factory, the factory hands out interface objects, and an interface object's
 * first field is its table of operations.
 */
#ifndef QOR_COMPONENT_H
#define QOR_COMPONENT_H

#include "qor_types.h"

QOR_BEGIN_C

enum {
    QOR_IID_BASE = 0x748429F6,    /* any component: its factory, or its only interface object */
    QOR_IID_FACTORY = 0x11DB04E4, /* the factory itself */
    QOR_E_NO_INTERFACE = 0x10102DDF
};

typedef struct {
    u32 (*queryInterface)(void *factory, u32 interfaceId, void **out);
    u32 (*createInstance)(void *factory, u32 interfaceId, void **out); /* 0 on success */
} QorFactoryVtbl;

typedef struct {
    const QorFactoryVtbl *vtbl;
} QorFactory;

typedef struct {
    u32 componentId;
    char name[32];      /* padded with zero bytes */
    char shortName[64]; /* padded with zero bytes */
    u32 one;            /* 1 */
    QorFactory *factory;
} QorComponentInfo;
QOR_STATIC_ASSERT(sizeof(QorComponentInfo) == 112, "component record");

QOR_END_C

#endif
