#include "cpucomm/tri_hidtv.h"

// A PC has no registers of the chip: there is nothing to map, and nothing that could fail.

int32_t TriHidtvRegMap(void) {
    return 0;
}

void TriHidtvRegUnmap(void) {}
