/*
 * Text routines.
 *
 * The local code page is the code set of the calling thread's current
 * locale (nl_langinfo(CODESET)). A program that never calls setlocale runs
 * in the "C" locale; that locale, and every UTF-8 locale, counts as UTF-8
 * here, so text passes through unchanged. Any other code set is converted
 * with iconv.
 */
#ifndef OS_TEXT_H
#define OS_TEXT_H

#include <stdarg.h>

#include "os_platform_export.h"

OS_PLATFORM_BEGIN_DECLS

/*
 * Converts the zero-terminated `src` (UTF-8 for _from_utf8, the local code
 * page for _to_utf8) into the other encoding. Two-call protocol:
 *   out == NULL: *len receives the size needed, terminating zero included;
 *                returns 1.
 *   out != NULL: *len is the capacity of out. If it suffices, the text and
 *                its terminator are written, *len receives the size used and
 *                1 is returned; otherwise 0 is returned and nothing changes.
 * Returns 0 for a NULL src or len, or text that the code set cannot hold.
 */
OS_PLATFORM_API int os_utf8helper_oem_from_utf8(const char* src, char* out, unsigned long* len);
OS_PLATFORM_API int os_utf8helper_oem_to_utf8(const char* src, char* out, unsigned long* len);

/* Length of the text that `format` with `ap` produces, PLUS ONE for the
 * terminating zero, so that a buffer of that size holds the whole text.
 * Returns 0 when the format cannot be rendered. `ap` is not consumed. */
OS_PLATFORM_API int os_clibrary_string_get_formatted_length(const char* format, va_list ap);

/* 1 when every byte of the zero-terminated text is below 0x80 (the empty
 * text included); 0 otherwise and for NULL. */
OS_PLATFORM_API int os_clibrary_string_is_ascii(const char* text);

OS_PLATFORM_END_DECLS

#endif
