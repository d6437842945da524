// C-library text helpers of the platform layer.
#ifndef GROUNDKIT_OS_OS_CLIBRARY_H
#define GROUNDKIT_OS_OS_CLIBRARY_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "os_text.h"

namespace OS {
namespace CLibrary {

class String {
public:
    // Formatted length plus one (room for the terminator); 0 when the format
    // cannot be rendered. `ap` is not consumed.
    static int getFormattedLength(const char* strFormat, va_list ap) {
        return os_clibrary_string_get_formatted_length(strFormat, ap);
    }
    // True when every byte is below 0x80; false for null.
    static bool isAscii(const char* strVarName1) {
        return os_clibrary_string_is_ascii(strVarName1) != 0;
    }
    // True when the bytes are the same text in every code page: none of
    // 0x80 or above, and no zero byte (which a conversion would take as the
    // end of the text).
    static bool isAsciiText(const char* pText, size_t length) {
        // Eight bytes at a time (every frame's addresses pass through
        // here): with no high bit set, a byte borrows in w - ones, and so
        // shows its high bit, exactly when it is zero.
        const uint64_t ones = 0x0101010101010101ULL;
        const uint64_t highs = 0x8080808080808080ULL;
        uint64_t w;
        if (length >= 8) {
            // The last eight bytes, overlapping the others, end the text.
            for (size_t i = 0; i + 8 < length; i += 8) {
                std::memcpy(&w, pText + i, sizeof w);
                if (((w - ones) | w) & highs) return false;
            }
            std::memcpy(&w, pText + length - 8, sizeof w);
            return (((w - ones) | w) & highs) == 0;
        }
        for (size_t i = 0; i < length; ++i) {
            const unsigned char byte = static_cast<unsigned char>(pText[i]);
            if (byte == 0 || byte >= 0x80) return false;
        }
        return true;
    }
};

}  // namespace CLibrary
}  // namespace OS

#endif
