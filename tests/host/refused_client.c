/*
 * A client component that does everything wrong, and tells what it was given for it. At the end it
 * asks under the service of somebody else, with data of its own.
 */
#include "l2rsm_client.h"

u32 QorClientStart(const L2RsmFunVtbl *l2rsm)
{
    VlanEditInfo edit = {5, 2, 1, 1, 1, 1, 1, 1, 1, 1};
    VlanEditInfo other = {13, 2, 1, 1, 1, 1, 1, 1, 1, 1};
    u16 profileId = 777;
    u32 results = l2rsm->icibRegister(9, 0);
    results += l2rsm->notifyRegister(6, 1, 0);
    results += l2rsm->assignVlanEditProfile(0, &profileId, 1);
    results += l2rsm->assignVlanEditProfile(&edit, 0, 1);
    results += l2rsm->assignVlanEditProfile(&other, &profileId, 2);
    results += l2rsm->freeVlanEditProfile(&other, 1);
    results += profileId != 777 ? 100 : 0;
    results += l2rsm->assignVlanEditProfile(&edit, &profileId, 1);
    results += profileId != 4 ? 100 : 0;

    u8 data[3] = {0xff, 0xff, 'x'};
    L2ResIcibKey key = {0};
    L2ResTokenReq request = {.Stamp = 1, .FwdType = 30, .key = &key};
    (void)l2rsm->getIcibToken(3, 1, &request);
    request.Stamp = 2;
    request.FwdType = 20;
    request.data = data;
    request.dataLen = sizeof data;
    (void)l2rsm->getIcibToken(2, 1, &request);
    (void)l2rsm->freeIcibToken(3, 1, &request);
    return results;
}
