// String routines shared by the whole library.
//
// getBaseStringFromSTLString is the size protocol of every operation that
// hands text out through a caller's buffer:
//   - null buffer: dwLen receives length + 1; true.
//   - dwLen >= length + 1: the text and its terminator are copied, dwLen
//     receives length + 1; true.
//   - otherwise: false; buffer and dwLen untouched.
#ifndef GROUNDKIT_STRINGASSISTANT_STRINGASSISTANT_H
#define GROUNDKIT_STRINGASSISTANT_STRINGASSISTANT_H

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "GroundKit/OS/OS_CLibrary.h"

class CStringAssistant {
public:
    static bool getBaseStringFromSTLString(const std::string& strValue, char* pValue,
                                           unsigned long& dwLen) {
        const unsigned long needed = static_cast<unsigned long>(strValue.size()) + 1;
        if (pValue == nullptr) {
            dwLen = needed;
            return true;
        }
        if (dwLen < needed) return false;
        std::memcpy(pValue, strValue.c_str(), needed);
        dwLen = needed;
        return true;
    }

    static std::string format(const char* strFormat, ...) __attribute__((format(printf, 1, 2))) {
        va_list ap;
        va_start(ap, strFormat);
        std::string result = formatV(strFormat, ap);
        va_end(ap);
        return result;
    }

    // The platform's length already counts the terminator, so a buffer of
    // that size holds the whole text.
    static std::string formatV(const char* strFormat, va_list ap) {
        const int maxlen = OS::CLibrary::String::getFormattedLength(strFormat, ap);
        if (maxlen < 1) return std::string();
        std::vector<char> buffer(static_cast<size_t>(maxlen) + 1, '\0');
        va_list copy;
        va_copy(copy, ap);
        std::vsnprintf(buffer.data(), static_cast<size_t>(maxlen), strFormat, copy);
        va_end(copy);
        return std::string(buffer.data());
    }

    // Replaces the first, or every, occurrence of strOldText. strOldText must
    // not be empty unless it equals strNewText (an empty pattern would match
    // at every position for ever).
    static std::string replaceSTLString(const std::string& strSrcText,
                                        const std::string& strOldText,
                                        const std::string& strNewText, bool bReplaceAll) {
        if (strOldText == strNewText) return strSrcText;
        std::string result;
        std::string::size_type copied = 0;
        std::string::size_type match = strSrcText.find(strOldText, 0);
        while (match != std::string::npos) {
            result.append(strSrcText, copied, match - copied);
            result.append(strNewText);
            copied = match + strOldText.size();
            if (!bReplaceAll) break;
            match = strSrcText.find(strOldText, copied);
        }
        if (strSrcText.size() > copied) result.append(strSrcText, copied, std::string::npos);
        return result;
    }
};

#endif
