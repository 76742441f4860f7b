/*
 * Start-up helpers shared by the framework: the internal storage folder, and the plain-text reader
 * of one file group's base path in paths.xml.
 */
#ifndef TARSK_PLATFORM_INITFUNCS_H
#define TARSK_PLATFORM_INITFUNCS_H

#include "sal/winapi.h"

/* The internal storage folder: the registry's "Internal", else the internal root that the device's
 * model chooses. Empty when neither gives one. Returns folder. */
LPWSTR init_getInternalFolder(WCHAR folder[MAX_PATH]);

/* Scans folder\paths.xml (folder NULL or empty: the internal storage folder) as 8-bit text for the
 *     <filegroup> <name>NAME</name> <basepath>TEXT</basepath> </filegroup>
 * whose name equals name exactly, and copies TEXT whole into output (empty when the group has no
 * base path). The copy is not bounded: the caller gives room for the longest base path it expects.
 * True when the group was found; output is untouched otherwise. */
bool init_readSettingFromPathsFile(char *output, LPCWSTR folder, const char *name);

#endif /* TARSK_PLATFORM_INITFUNCS_H */
