/* A client component that does everything wrong, and tells what it was given for it. */
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
    return results + (profileId != 4 ? 100 : 0);
}
