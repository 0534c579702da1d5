/*
 * A client component: service 2 wants the ICIB entry of port 7, outer VLAN 100.
 *
 * It asks for the entry's token when it is started. Told to wait, it asks again whenever it is told
 * that the entry is free. Once it may proceed it writes the entry and frees the token.
 */
#include <string.h>

#include "l2rsm_client.h"

enum { SERVICE = 2, FORWARDING_TYPE = 20 };

static const L2RsmFunVtbl *s_l2rsm; /* set before the callback is registered */

static L2ResIcibKey entryKey(void)
{
    L2ResIcibKey key;
    memset(&key, 0, sizeof key);
    key.GlobalPort = 7;
    key.OutVlan = 100;
    return key;
}

/* Here a real client programs the forwarding engine. */
static void writeEntry(const L2ResIcibKey *key)
{
    (void)key;
}

/* Adds the entry, now or when its turn has come. A token result, or that of the free. */
static u32 addEntry(void)
{
    const char data[] = "port 7"; /* comes back with the notification */
    L2ResIcibKey key = entryKey();
    L2ResTokenReq req = {0};
    req.Stamp = 200;
    req.FwdType = FORWARDING_TYPE;
    req.key = &key;
    req.dataLen = sizeof data - 1;
    req.data = data;
    const u32 result = s_l2rsm->getIcibToken(SERVICE, L2RES_OP_ADD, &req);
    if (result != L2RES_TOKEN_PROCEED) {
        return result;
    }
    writeEntry(&key);
    return s_l2rsm->freeIcibToken(SERVICE, L2RES_OP_ADD, &req);
}

/* Told "free", it may still lose to another service and has to wait once more: that is no fault. */
static u32 onNotify(u32 event, void *record, void *data)
{
    (void)record;
    (void)data;
    if (event != L2RES_EVENT_ENTRY_FREE) {
        return QOR_OK;
    }
    const u32 result = addEntry();
    return result == L2RES_TOKEN_WAIT ? QOR_OK : result;
}

u32 QorClientStart(const L2RsmFunVtbl *table)
{
    s_l2rsm = table;
    if (table->icibRegister(SERVICE, onNotify) != QOR_OK) {
        return QOR_FAIL;
    }
    const u32 result = addEntry();
    return result == L2RES_TOKEN_WAIT ? QOR_OK : result;
}
