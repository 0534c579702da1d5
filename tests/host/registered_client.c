/* A client component that waits, under service 1, for the ICIB entry of port 9. */
#include "l2rsm_client.h"

static u32 onNotify(u32 event, void *record, void *data)
{
    (void)event;
    (void)record;
    return data == 0 ? 21 : 20; /* it asks without data */
}

u32 QorClientStart(const L2RsmFunVtbl *l2rsm)
{
    L2ResIcibKey key = {0};
    key.GlobalPort = 9;
    L2ResTokenReq request = {.Stamp = 2, .FwdType = 20, .key = &key};
    (void)l2rsm->icibRegister(1, onNotify);
    return l2rsm->getIcibToken(1, 1, &request) == 4 ? QOR_OK : QOR_FAIL;
}
