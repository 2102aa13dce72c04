#ifndef SPRINTF_S_H
#define SPRINTF_S_H

/* The bounds-checked C library, as far as it is used here. */

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Formats into dest of dest_size bytes, the ending NUL included. Returns the characters written without the NUL, or a
 * negative value, with dest emptied, when the result does not fit. */
int sprintf_s(char *dest, size_t dest_size, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

#ifdef __cplusplus
}
#endif

#endif
