// Byte order of the processor, and conversion to and from network order
// (big-endian), which every integer on the wire uses.
#ifndef FIELDKIT_ENVIRONMENT_ENDIANTYPE_H
#define FIELDKIT_ENVIRONMENT_ENDIANTYPE_H

#include <cstddef>
#include <cstdint>
#include <cstring>

enum CPU_ENDIAN_TYPE {
    INVALID_ENDIAN_TYPE = -1,
    LITTLE_ENDIAN_TYPE = 0,
    BIG_ENDIAN_TYPE = 1
};

class CEndianType {
public:
    // Computed once and cached. Threads racing the first call all compute
    // and store the same value, so the cache needs no lock.
    static CPU_ENDIAN_TYPE getCPUEndianType() {
        static volatile int cached = INVALID_ENDIAN_TYPE;
        if (cached == INVALID_ENDIAN_TYPE) {
            const unsigned char bytes[2] = {0x12, 0x34};
            uint16_t probe;
            std::memcpy(&probe, bytes, sizeof probe);
            cached = probe == 0x1234 ? BIG_ENDIAN_TYPE : LITTLE_ENDIAN_TYPE;
        }
        return static_cast<CPU_ENDIAN_TYPE>(cached);
    }

    // Both directions are the same operation: reverse the bytes in place on
    // a little-endian processor, leave them on a big-endian one. The value
    // is changed in place and also returned.
    template <class T>
    static T hostToNetwork(T& value) {
        if (getCPUEndianType() != BIG_ENDIAN_TYPE) reverse(value);
        return value;
    }
    template <class T>
    static T networkToHost(T& value) {
        return hostToNetwork(value);
    }

private:
    template <class T>
    static void reverse(T& value) {
        unsigned char* bytes = reinterpret_cast<unsigned char*>(&value);
        for (size_t i = 0; i < sizeof(T) / 2; ++i) {
            unsigned char tmp = bytes[i];
            bytes[i] = bytes[sizeof(T) - 1 - i];
            bytes[sizeof(T) - 1 - i] = tmp;
        }
    }
};

#endif
