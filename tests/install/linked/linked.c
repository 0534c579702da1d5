/* A program that links with module and platform; the module is started without any service. */
#include <comp_registry.h>
#include <l2rsm_component.h>
#include <l2rsm_entry.h>
#include <stdio.h>

int main(void)
{
    void *table = 0;
    const u32 phase1 = QorL2ResInit(0, 0, L2RES_PHASE_INIT);
    const u32 phase3 = QorL2ResInit(0, 0, L2RES_PHASE_PATCH);
    const u32 found = COMP_GetVTable(L2RES_COMPONENT_ID, L2RES_IID_FUNCTIONS, &table);
    printf("phase 1: %u, phase 3: %u, table: %u\n", phase1, phase3, found);
    return 0;
}
