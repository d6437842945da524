// C-library text helpers of the platform layer.
#ifndef GROUNDKIT_OS_OS_CLIBRARY_H
#define GROUNDKIT_OS_OS_CLIBRARY_H

#include <cstdarg>
#include <cstddef>

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
