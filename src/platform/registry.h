/*
 * The platform's registry readers: what the device says of itself under HKLM "Information" (or
 * "Velmar"), and the known storage roots and install folder of each device model.
 */
#ifndef TARSK_PLATFORM_REGISTRY_H
#define TARSK_PLATFORM_REGISTRY_H

#include "sal/winapi.h"

/* Reads a string value of HKLM "Information", else of HKLM "Velmar" (up to 520 bytes). 1 on success. */
int getVLRegistryString(LPCWSTR valueName, LPWSTR buffer, DWORD capacity);
/* The hardware name, without the maker's word, cut at the first ',' (else the first blank). */
int sys_getHardwareName(WCHAR buffer[MAX_PATH]);
/* The mount path of external storage number 1 ("External1"). */
int sys_getExternalPath1(WCHAR buffer[MAX_PATH]);
/* The mount path of the internal storage ("Internal"). */
int sys_getInternalPath(WCHAR buffer[MAX_PATH]);
/* The internal root, external root and install folder of a model; each output is filled only when
 * its capacity is not 0. Returns 1. */
int sys_getKnownRoots(DWORD model, LPWSTR internalRoot, DWORD internalCapacity, LPWSTR externalRoot,
                      DWORD externalCapacity, LPWSTR installFolder, DWORD installCapacity);

#endif
