#include <errno.h>
#include <iconv.h>
#include <langinfo.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "os_text.h"

/* The C locale reports plain ASCII; treating it as UTF-8 keeps non-ASCII
 * text intact for programs that never call setlocale. */
static int local_code_set_is_utf8(const char** code_set) {
    const char* cs = nl_langinfo(CODESET);
    *code_set = cs;
    return cs == NULL || *cs == '\0' || strcasecmp(cs, "UTF-8") == 0 ||
           strcasecmp(cs, "UTF8") == 0 || strcmp(cs, "ANSI_X3.4-1968") == 0;
}

/* Converts all of `src` with iconv into a new zero-terminated buffer. */
static char* convert(const char* to, const char* from, const char* src, size_t* out_len) {
    iconv_t cd = iconv_open(to, from);
    if (cd == (iconv_t)-1) return NULL;

    size_t in_left = strlen(src);
    size_t cap = in_left * 4 + 16;
    char* out = malloc(cap);
    char* in = (char*)src;
    char* dst = out;
    size_t dst_left = cap - 1;
    while (out != NULL && in_left > 0) {
        if (iconv(cd, &in, &in_left, &dst, &dst_left) != (size_t)-1) continue;
        if (errno != E2BIG) {
            free(out);
            out = NULL;
            break;
        }
        size_t used = (size_t)(dst - out);
        char* grown = realloc(out, cap * 2);
        if (grown == NULL) {
            free(out);
            out = NULL;
            break;
        }
        out = grown;
        cap *= 2;
        dst = out + used;
        dst_left = cap - 1 - used;
    }
    iconv_close(cd);
    if (out == NULL) return NULL;
    *dst = '\0';
    *out_len = (size_t)(dst - out);
    return out;
}

static int hand_out(const char* text, size_t length, char* out, unsigned long* len) {
    unsigned long needed = (unsigned long)length + 1;
    if (out == NULL) {
        *len = needed;
        return 1;
    }
    if (*len < needed) return 0;
    memcpy(out, text, length);
    out[length] = '\0';
    *len = needed;
    return 1;
}

static int transcode(int to_utf8, const char* src, char* out, unsigned long* len) {
    if (src == NULL || len == NULL) return 0;
    const char* code_set;
    if (local_code_set_is_utf8(&code_set)) return hand_out(src, strlen(src), out, len);

    size_t length = 0;
    char* converted = to_utf8 ? convert("UTF-8", code_set, src, &length)
                              : convert(code_set, "UTF-8", src, &length);
    if (converted == NULL) return 0;
    int ok = hand_out(converted, length, out, len);
    free(converted);
    return ok;
}

int os_utf8helper_oem_from_utf8(const char* src, char* out, unsigned long* len) {
    return transcode(0, src, out, len);
}

int os_utf8helper_oem_to_utf8(const char* src, char* out, unsigned long* len) {
    return transcode(1, src, out, len);
}

int os_clibrary_string_get_formatted_length(const char* format, va_list ap) {
    if (format == NULL) return 0;
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(NULL, 0, format, copy);
    va_end(copy);
    /* A text of INT_MAX characters has no size that fits the result. */
    return (n < 0 || n == INT_MAX) ? 0 : n + 1;
}

int os_clibrary_string_is_ascii(const char* text) {
    if (text == NULL) return 0;
    for (const unsigned char* p = (const unsigned char*)text; *p; ++p)
        if (*p >= 0x80) return 0;
    return 1;
}
