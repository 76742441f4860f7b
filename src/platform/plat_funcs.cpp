/*
 * Hardware information: the hardware version the kernel reports, the memory fitted, and the model
 * number of a model name.
 */
#include "platform/plat_funcs.h"

#include "platform/platform.h"
#include "platform/plat_unicode.h"

#include <string.h>

DWORD sys_getHardwareVersion(void)
{
    DWORD version = 0;
    DWORD returned = 0;
    if (KernelIoControl(IOCTL_HAL_READ_HW_VERSION, NULL, 0, &version, sizeof(version), &returned)) {
        vl_printA("sys_getHardwareVersion(): KernelIoControl(IOCTL_HAL_READ_HW_VERSION) returned %d\n", (int)version);
        return version;
    }
    DWORD error = GetLastError();
    os_setLastError(error);
    vl_printA("sys_getHardwareVersion(): KernelIoControl(IOCTL_HAL_READ_HW_VERSION) failed, error %d\n", (int)error);
    return 0;
}

int sys_getHardwareMemory(DWORD *size)
{
    /* The object store is carved out of RAM, so store plus physical memory is the RAM fitted. */
    STORE_INFORMATION store;
    memset(&store, 0, sizeof(store));   /* a failed query counts the store as 0 */
    if (!GetStoreInformation(&store)) {
        os_setLastError(GetLastError());
        VLLOG(LOG_ERROR, TEXT("sys_getHardwareMemory(): GetStoreInformation() failed, error %d\n"), (int)os_getLastError());
    }

    MEMORYSTATUS status;
    memset(&status, 0, sizeof(status));
    status.dwLength = sizeof(MEMORYSTATUS);   /* 32 on the device */
    GlobalMemoryStatus(&status);

    DWORD total = store.dwStoreSize + (DWORD)status.dwTotalPhys;
    /* The remainder is shown as the raw byte count it is; the line is only read by people. */
    vl_printA("Total physical RAM in the order of: 0x%x (approx %d.%d MB)\n", total, (int)(total / 0x100000),
              (int)(total % 0x100000));

    /* The next multiple of 8 MB above the total, one step further when the total already is one:
     * parts of RAM are always reserved, so an exact multiple means the next size up. */
    if (size != NULL) *size = ((total >> 23) + 1) << 23;
    return 1;
}

/* ---- model numbers ---- */

struct ModelRow {
    const WCHAR *name;
    DWORD number;
};

#define MODEL_FAMILY_WORD TEXT("VESKA")
#define MODEL_FAMILY_WORD_LENGTH 5

/* The VESKA family, matched by prefix in this order: a longer name stands before any name that
 * begins it ("VESKA320XL" before "VESKA320"). */
static const ModelRow g_prefixModels[] = {
    {TEXT("VESKA320XL"), 21},
    {TEXT("VESKA320"), 20},
    {TEXT("VESKA220"), 19},
    {TEXT("VESKA120"), 17},
    {TEXT("VESKAMINI"), 22},
    {TEXT("VESKACITY"), 23},
    {TEXT("VESKAPRO"), 24},
};

/* Everything else, matched as a substring; the first row found wins, so the order matters: a name
 * that contains a later row's name must stand before it ("DRIVELO500T" before "DRIVELO500").
 * "X70" can never be returned: "X7" stands before it and is found in every name that holds "X70".
 * That is how the table was shipped and it is kept so. */
static const ModelRow g_substringModels[] = {
    {TEXT("DRIVELO500T"), 31},
    {TEXT("DRIVELO500"), 30},
    {TEXT("DRIVELO300"), 29},
    {TEXT("DRIVELO100"), 28},
    {TEXT("TREKNOVA7"), 7},
    {TEXT("TREKNOVA8"), 8},
    {TEXT("TREKNOVA9"), 9},
    {TEXT("TREKNOVA10"), 10},
    {TEXT("MAPPO2CF"), 11},
    {TEXT("MAPPODEV"), 12},
    {TEXT("MAPPOLAB"), 13},
    {TEXT("WAYRO15"), 15},
    {TEXT("WAYRO16"), 16},
    {TEXT("WAYRO25"), 25},
    {TEXT("WAYRO35"), 26},
    {TEXT("WAYRO45"), 27},
    {TEXT("CITYNAV40"), 32},
    {TEXT("CITYNAV42"), 33},
    {TEXT("CITYNAV44"), 34},
    {TEXT("CITYNAV46"), 35},
    {TEXT("ROADLYNXA"), 36},
    {TEXT("ROADLYNXB"), 37},
    {TEXT("ROADLYNXC"), 38},
    {TEXT("ALTURA600"), 39},
    {TEXT("ALTURA650"), 40},
    {TEXT("ALTURA700"), 41},
    {TEXT("ALTURA750"), 42},
    {TEXT("ZENTO3"), 43},
    {TEXT("ZENTO5"), 44},
    {TEXT("ZENTO7"), 45},
    {TEXT("KX2"), 46},
    {TEXT("KX4"), 47},
    {TEXT("Q5"), 48},
    {TEXT("M2"), 49},
    {TEXT("N9"), 50},
    {TEXT("T8"), 51},
    {TEXT("X7"), 52},
    {TEXT("X70"), 53},
    {TEXT("R3"), 54},
    {TEXT("V6"), 59},
    {TEXT("P1"), 60},
};

/* Compile-time checks of the table's shape: 7 prefix rows and 41 substring rows. */
typedef char model_prefix_rows_are_7[(sizeof(g_prefixModels) / sizeof(g_prefixModels[0]) == 7) ? 1 : -1];
typedef char model_substring_rows_are_41[(sizeof(g_substringModels) / sizeof(g_substringModels[0]) == 41) ? 1 : -1];

DWORD sys_getModelNumber(LPCWSTR modelName)
{
    if (modelName == NULL) return 0;
    WCHAR name[MAX_PATH];
    uni_wcsncpy0(name, modelName, MAX_PATH);   /* at most 259 characters */
    uni_wcsupr(name);

    size_t i;
    if (uni_wcsncmp(name, MODEL_FAMILY_WORD, MODEL_FAMILY_WORD_LENGTH) == 0) {
        for (i = 0; i < sizeof(g_prefixModels) / sizeof(g_prefixModels[0]); ++i) {
            const ModelRow &row = g_prefixModels[i];
            if (uni_wcsncmp(name, row.name, uni_wcslen(row.name)) == 0) return row.number;
        }
        return 0;
    }
    for (i = 0; i < sizeof(g_substringModels) / sizeof(g_substringModels[0]); ++i) {
        const ModelRow &row = g_substringModels[i];
        if (uni_wcsstr(name, row.name) != NULL) return row.number;
    }
    return 0;
}
