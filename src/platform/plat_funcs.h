/*
 * Hardware information: the hardware version the kernel reports, the memory fitted, and the model
 * number of a model name.
 */
#ifndef TARSK_PLATFORM_PLAT_FUNCS_H
#define TARSK_PLATFORM_PLAT_FUNCS_H

#include "sal/winapi.h"

DWORD sys_getHardwareVersion(void);          /* 0 on failure */
int sys_getHardwareMemory(DWORD *size);      /* always 1 */
DWORD sys_getModelNumber(LPCWSTR modelName); /* 0 for an unknown model */

#endif
