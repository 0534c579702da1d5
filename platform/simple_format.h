/* Formatting of the conversions that log messages are made of. */
#ifndef SIMPLE_FORMAT_H
#define SIMPLE_FORMAT_H

#include <cstdarg>
#include <cstddef>

/*
 * Formats into dest, `room` bytes with the terminator, as vsnprintf does, provided that the format
 * has no conversions but %d, %u, %llu, %s and %%, that no text is null and that everything fits.
 * The length; or -1 when it is not that simple: then the C library has to do it, into the same
 * destination, of which a part of the same text may have been written. `arguments` stays as it was.
 */
int formatSimple(char *dest, size_t room, const char *format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

#endif
