/*
 * Bounds-checked memory and string calls, and checked forms of two system calls.
 *
 * Each call knows its destination's size and never writes beyond it. On failure (null pointer, zero
 * or too small destination, count above the destination) the result says so and the destination,
 * if there is one, is emptied: zeroed by memcpy_s, and by memset_s up to its size; made the empty
 * string by the string calls. Copies may overlap. A size beyond half the address space comes from a
 * subtraction that wrapped: a failure that touches nothing.
 */
#ifndef BOUNDED_H
#define BOUNDED_H

#include <stdarg.h>
#include <stddef.h>

#include "qor_types.h"

QOR_BEGIN_C

/* 0, or non-zero on failure. A count of 0 copies nothing and succeeds, also from a null source. */
QOR_API int memcpy_s(void *dest, size_t destSize, const void *src, size_t count);
QOR_API int memset_s(void *dest, size_t destSize, int value, size_t count);
QOR_API int strcpy_s(char *dest, size_t destSize, const char *src);
QOR_API int strcat_s(char *dest, size_t destSize, const char *src);

/* The length written, or -1: null argument, a text that does not fit, a bad format. */
QOR_API int sprintf_s(char *dest, size_t destSize, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/*
 * As sprintf_s, but a text longer than `limit` characters is cut there when limit < destSize, and
 * the limit is returned. With limit >= destSize a text that does not fit is a failure.
 */
QOR_API int snprintf_s(char *dest, size_t destSize, size_t limit, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
QOR_API int vsnprintf_s(char *dest, size_t destSize, size_t limit, const char *format,
                        va_list arguments) __attribute__((format(printf, 4, 0)));

/* epoll_create with close-on-exec: a descriptor, or -1 (also for a size hint below 1). */
QOR_API int epoll_create_s(int sizeHint);
/* close: 0, or -1. */
QOR_API int close_s(int descriptor);

QOR_END_C

#endif
