/* A client component that never gets started. */
#include <unistd.h>

#include "l2rsm_client.h"

u32 QorClientStart(const L2RsmFunVtbl *l2rsm)
{
    (void)l2rsm;
    for (;;) {
        (void)sleep(1);
    }
}
