#ifndef CPUCOMM_TRI_HIDTV_H
#define CPUCOMM_TRI_HIDTV_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

///@{
/// Maps the chip's registers, and unmaps them; before, respectively after, everything of the
/// CPU-communication library. 0, or -1 when the registers cannot be mapped. Thread-safe.
int32_t TriHidtvRegMap(void);
void TriHidtvRegUnmap(void);
///@}

#ifdef __cplusplus
} // extern "C"
#endif

#endif
