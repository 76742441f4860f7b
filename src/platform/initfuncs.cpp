/*
 * Start-up helpers: the internal storage folder and the plain-text paths.xml reader.
 */
#include "platform/initfuncs.h"

#include "platform/platform.h"
#include "platform/plat_alloc.h"
#include "platform/plat_file.h"
#include "platform/plat_funcs.h"
#include "platform/plat_unicode.h"
#include "platform/registry.h"

#include <string.h>

LPWSTR init_getInternalFolder(WCHAR folder[MAX_PATH])
{
    folder[0] = 0;
    if (sys_getInternalPath(folder)) return folder;

    folder[0] = 0;
    WCHAR hardware[MAX_PATH];
    sys_getHardwareName(hardware);
    sys_getKnownRoots(sys_getModelNumber(hardware), folder, MAX_PATH, NULL, 0, NULL, 0);
    return folder;
}

/* The first occurrence of text that lies wholly within [from, end), or NULL. */
static const char *findText(const char *from, const char *end, const char *text)
{
    size_t length = strlen(text);
    if (from == NULL || end < from || (size_t)(end - from) < length) return NULL;
    const char *last = end - length;
    for (const char *p = from; p <= last; ++p) {
        if (memcmp(p, text, length) == 0) return p;
    }
    return NULL;
}

/* The text between open and close within [from, end): sets *start and *stop; false when either tag
 * is missing. */
static bool findElementText(const char *from, const char *end, const char *open, const char *close,
                            const char **start, const char **stop)
{
    const char *p = findText(from, end, open);
    if (p == NULL) return false;
    p += strlen(open);
    const char *q = findText(p, end, close);
    if (q == NULL) return false;
    *start = p;
    *stop = q;
    return true;
}

bool init_readSettingFromPathsFile(char *output, LPCWSTR folder, const char *name)
{
    static const char groupOpen[] = "<filegroup>";
    static const char groupClose[] = "</filegroup>";

    WCHAR internal[MAX_PATH];
    if (folder == NULL || folder[0] == 0) folder = init_getInternalFolder(internal);
    WCHAR path[MAX_PATH];
    uni_snwprintf(path, MAX_PATH, TEXT("%ls%ls%ls"), folder, TEXT("\\"), TEXT("paths.xml"));

    COSFile file;
    if (!file.Open(path, TEXT("rb"))) {
        VLLOG(LOG_ERROR, TEXT("init_readSettingFromPathsFile(): Can't find file %ls\n"), path);
        return false;
    }
    DWORD size = file.GetSize();
    if (size == 0 || size == INVALID_FILE_SIZE) {
        file.Close();
        return false;
    }
    char *buffer = (char *)os_malloc(size);
    if (buffer == NULL) {
        file.Close();
        return false;
    }
    DWORD read = file.Read(buffer, size);
    file.Close();

    /* Every search below is bounded by the end of what was read (or of the current group): the
     * file need not be terminated nor well formed. */
    const char *end = buffer + read;
    size_t nameLength = name != NULL ? strlen(name) : 0;
    bool found = false;
    const char *group = findText(buffer, end, groupOpen);
    while (group != NULL) {
        group += sizeof(groupOpen) - 1;
        const char *groupEnd = findText(group, end, groupClose);
        const char *limit = groupEnd != NULL ? groupEnd : end;

        const char *start = NULL;
        const char *stop = NULL;
        if (findElementText(group, limit, "<name>", "</name>", &start, &stop) && stop > start &&
            (size_t)(stop - start) == nameLength && memcmp(start, name, nameLength) == 0) {
            size_t length = 0;
            if (findElementText(group, limit, "<basepath>", "</basepath>", &start, &stop))
                length = (size_t)(stop - start);
            memcpy(output, start, length);
            output[length] = 0;
            found = true;
            break;
        }
        if (groupEnd == NULL) break;
        group = findText(groupEnd + sizeof(groupClose) - 1, end, groupOpen);
    }

    os_free(buffer);
    return found;
}
