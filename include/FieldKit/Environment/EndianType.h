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
    // Computed once, on first use, by the language's thread-safe
    // initialisation of a local static: senders on many threads convert
    // their first header at the same time.
    static CPU_ENDIAN_TYPE getCPUEndianType() {
        static const CPU_ENDIAN_TYPE cached = probeCPUEndianType();
        return cached;
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
    static CPU_ENDIAN_TYPE probeCPUEndianType() {
        const unsigned char bytes[2] = {0x12, 0x34};
        uint16_t probe;
        std::memcpy(&probe, bytes, sizeof probe);
        return probe == 0x1234 ? BIG_ENDIAN_TYPE : LITTLE_ENDIAN_TYPE;
    }

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
