/*
 * The package cipher: a 64-bit block cipher in the shape of XTEA with its own round function.
 * Data words are shifted right arithmetically (sign-extending), 16 cycles, delta 0x9E3779B9.
 * The packaging side enciphers with the mirror image, so both must stay exactly as they are.
 */
#include "tarsklib/tarsklib.h"
#include "tarsk_key.h"

#include <string.h>

#define TARSK_CIPHER_CYCLES 16

/* The data words are shifted right arithmetically (copies of the sign come in). C++03 leaves the
 * right shift of a negative value to the compiler; every compiler this program is built with
 * shifts arithmetically and converts to signed by wrapping, and this check stops the build on one
 * that does not, so the native shift can be used. */
typedef char TarskShiftIsArithmetic[(((LONG)-16 >> 2) == -4 && (LONG)0x80000000u < 0) ? 1 : -1];

static inline DWORD sar5(DWORD v)
{
    return (DWORD)((LONG)v >> 5);
}

/* The mixing function of one half-round. */
static inline DWORD mix(DWORD v)
{
    return sar5(v) ^ (v << 4);
}

/* The words of a block are little-endian in the package. On a little-endian machine (the device's
 * ARM, the x86 hosts) they are moved whole with memcpy, which compilers turn into one load or store;
 * elsewhere the bytes are put together one by one. */
#if (defined(__BYTE_ORDER__) && defined(__ORDER_LITTLE_ENDIAN__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__) \
    || defined(_M_ARM) || defined(_M_IX86) || defined(_M_X64) || defined(_M_AMD64)
#define TARSK_CIPHER_LITTLE_ENDIAN 1
#endif

static inline DWORD loadLE(const BYTE *p)
{
#ifdef TARSK_CIPHER_LITTLE_ENDIAN
    DWORD v;
    memcpy(&v, p, sizeof(v));
    return v;
#else
    return (DWORD)p[0] | ((DWORD)p[1] << 8) | ((DWORD)p[2] << 16) | ((DWORD)p[3] << 24);
#endif
}

static inline void storeLE(BYTE *p, DWORD v)
{
#ifdef TARSK_CIPHER_LITTLE_ENDIAN
    memcpy(p, &v, sizeof(v));
#else
    p[0] = (BYTE)v;
    p[1] = (BYTE)(v >> 8);
    p[2] = (BYTE)(v >> 16);
    p[3] = (BYTE)(v >> 24);
#endif
}

void tarsk_decipher(BYTE *data, DWORD size, const DWORD key[4])
{
    /* A local copy: the byte stores into the data could alias the caller's key, which would make
     * the compiler load the key words again for every block. */
    const DWORD k[4] = { key[0], key[1], key[2], key[3] };
    DWORD blocks = size / 8;
    for (DWORD b = 0; b < blocks; ++b) {
        BYTE *p = data + b * 8;
        DWORD y = loadLE(p);
        DWORD z = loadLE(p + 4);
        DWORD sum = TARSK_CIPHER_DELTA * TARSK_CIPHER_CYCLES;
        for (int i = 0; i < TARSK_CIPHER_CYCLES; ++i) {
            z = z - mix(y) - (sum ^ y) - k[(sum >> 11) & 3];
            sum -= TARSK_CIPHER_DELTA;
            y = y - mix(z) - (sum ^ z) - k[sum & 3];
        }
        storeLE(p, y);
        storeLE(p + 4, z);
    }
}

void tarsk_encipher(BYTE *data, DWORD size, const DWORD key[4])
{
    /* A local copy: the byte stores into the data could alias the caller's key, which would make
     * the compiler load the key words again for every block. */
    const DWORD k[4] = { key[0], key[1], key[2], key[3] };
    DWORD blocks = size / 8;
    for (DWORD b = 0; b < blocks; ++b) {
        BYTE *p = data + b * 8;
        DWORD y = loadLE(p);
        DWORD z = loadLE(p + 4);
        DWORD sum = 0;
        for (int i = 0; i < TARSK_CIPHER_CYCLES; ++i) {
            y = y + mix(z) + k[sum & 3] + (sum ^ z);
            sum += TARSK_CIPHER_DELTA;
            z = z + mix(y) + k[(sum >> 11) & 3] + (sum ^ y);
        }
        storeLE(p, y);
        storeLE(p + 4, z);
    }
}

void tarsk_packageKey(DWORD key[4])
{
    key[0] = TARSK_KEY_K0;
    key[1] = TARSK_KEY_K1;
    key[2] = TARSK_KEY_K2;
    key[3] = TARSK_KEY_K3;
}
