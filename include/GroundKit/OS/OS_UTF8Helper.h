// Conversions between UTF-8 and the local code page (see os_text.h for what
// the local code page is). Failures give the empty string.
#ifndef GROUNDKIT_OS_OS_UTF8HELPER_H
#define GROUNDKIT_OS_OS_UTF8HELPER_H

#include <string>
#include <vector>

#include "os_text.h"

namespace OS {

class UTF8Helper {
public:
    static std::string oemFromUTF8(const char* strUTF8) {
        return convert(os_utf8helper_oem_from_utf8, strUTF8);
    }
    static std::string oemToUTF8(const char* strOEM) {
        return convert(os_utf8helper_oem_to_utf8, strOEM);
    }
    static std::string oemToUTF8(const std::string& strOEM) { return oemToUTF8(strOEM.c_str()); }

private:
    typedef int (*Converter)(const char*, char*, unsigned long*);

    // The platform's two-call protocol: ask for the size, then convert.
    static std::string convert(Converter fn, const char* src) {
        unsigned long size = 0;
        if (!fn(src, nullptr, &size) || size == 0) return std::string();
        std::vector<char> buffer(size);
        if (!fn(src, buffer.data(), &size)) return std::string();
        return std::string(buffer.data());
    }
};

}  // namespace OS

#endif
