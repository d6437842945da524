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
    // Known when the code is compiled: every header on every frame is
    // converted, and a probe at run time cost a guarded static's check each.
    static constexpr CPU_ENDIAN_TYPE getCPUEndianType() {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
        return BIG_ENDIAN_TYPE;
#else
        return LITTLE_ENDIAN_TYPE;
#endif
    }

    // Both directions are the same operation: reverse the bytes in place on
    // a little-endian processor, leave them on a big-endian one. The value
    // is changed in place and also returned.
    template <class T>
    static T hostToNetwork(T& value) {
        if constexpr (getCPUEndianType() != BIG_ENDIAN_TYPE) reverse(value);
        return value;
    }
    template <class T>
    static T networkToHost(T& value) {
        return hostToNetwork(value);
    }

private:
    template <class T>
    static void reverse(T& value) {
        if constexpr (sizeof(T) == 2) {
            swapped<uint16_t>(value, [](uint16_t v) { return __builtin_bswap16(v); });
        } else if constexpr (sizeof(T) == 4) {
            swapped<uint32_t>(value, [](uint32_t v) { return __builtin_bswap32(v); });
        } else if constexpr (sizeof(T) == 8) {
            swapped<uint64_t>(value, [](uint64_t v) { return __builtin_bswap64(v); });
        } else {
            unsigned char* bytes = reinterpret_cast<unsigned char*>(&value);
            for (size_t i = 0; i < sizeof(T) / 2; ++i) {
                unsigned char tmp = bytes[i];
                bytes[i] = bytes[sizeof(T) - 1 - i];
                bytes[sizeof(T) - 1 - i] = tmp;
            }
        }
    }
    // Through an unsigned word of the same size, so that floating-point
    // values and enumerations convert as integers do.
    template <class Word, class T, class Swap>
    static void swapped(T& value, Swap swap) {
        Word word;
        std::memcpy(&word, &value, sizeof word);
        word = swap(word);
        std::memcpy(&value, &word, sizeof word);
    }
};

#endif
