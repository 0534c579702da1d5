/* Bounds-checked memory and string calls. */
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sys/epoll.h>
#include <unistd.h>

#include "bounded.h"
#include "simple_format.h"

namespace {

/* No object is larger: such a size comes from a subtraction that wrapped. */
constexpr size_t LARGEST_SIZE = PTRDIFF_MAX;

bool isDestination(const void *dest, size_t destSize)
{
    return dest != nullptr && destSize != 0 && destSize <= LARGEST_SIZE;
}

int failEmpty(char *dest, int result)
{
    dest[0] = '\0';
    return result;
}

__attribute__((format(printf, 4, 0))) int formatBounded(char *dest, size_t destSize, size_t limit,
                                                        const char *format, va_list arguments)
{
    if (!isDestination(dest, destSize)) {
        return -1;
    }
    if (format == nullptr) {
        return failEmpty(dest, -1);
    }
    const bool cuts = limit < destSize;
    const size_t room = cuts ? limit + 1 : destSize;
    int length = formatSimple(dest, room, format, arguments);
    if (length >= 0) {
        return length;
    }
    length = vsnprintf(dest, room, format, arguments);
    if (length >= 0 && static_cast<size_t>(length) < room) {
        return length;
    }
    if (length < 0 || !cuts) {
        return failEmpty(dest, -1);
    }
    return static_cast<int>(limit);
}

} // namespace

int memcpy_s(void *dest, size_t destSize, const void *src, size_t count)
{
    if (!isDestination(dest, destSize)) {
        return EINVAL;
    }
    if (count == 0) {
        return 0;
    }
    if (src == nullptr || count > destSize) {
        (void)memset(dest, 0, destSize);
        return src == nullptr ? EINVAL : ERANGE;
    }
    (void)memmove(dest, src, count);
    return 0;
}

int memset_s(void *dest, size_t destSize, int value, size_t count)
{
    if (!isDestination(dest, destSize)) {
        return EINVAL;
    }
    if (count > destSize) {
        (void)memset(dest, 0, destSize);
        return ERANGE;
    }
    (void)memset(dest, value, count);
    return 0;
}

int strcpy_s(char *dest, size_t destSize, const char *src)
{
    if (!isDestination(dest, destSize)) {
        return EINVAL;
    }
    if (src == nullptr) {
        return failEmpty(dest, EINVAL);
    }
    const size_t length = strnlen(src, destSize);
    if (length == destSize) {
        return failEmpty(dest, ERANGE);
    }
    (void)memmove(dest, src, length + 1);
    return 0;
}

int strcat_s(char *dest, size_t destSize, const char *src)
{
    if (!isDestination(dest, destSize)) {
        return EINVAL;
    }
    const size_t used = strnlen(dest, destSize);
    if (src == nullptr || used == destSize) {
        return failEmpty(dest, EINVAL);
    }
    const size_t length = strnlen(src, destSize - used);
    if (length == destSize - used) {
        return failEmpty(dest, ERANGE);
    }
    /* The terminator is written, not copied: with overlapping texts it may be overwritten. */
    (void)memmove(dest + used, src, length);
    dest[used + length] = '\0';
    return 0;
}

int vsnprintf_s(char *dest, size_t destSize, size_t limit, const char *format, va_list arguments)
{
    return formatBounded(dest, destSize, limit, format, arguments);
}

int snprintf_s(char *dest, size_t destSize, size_t limit, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = formatBounded(dest, destSize, limit, format, arguments);
    va_end(arguments);
    return length;
}

int sprintf_s(char *dest, size_t destSize, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = formatBounded(dest, destSize, destSize, format, arguments);
    va_end(arguments);
    return length;
}

int epoll_create_s(int sizeHint)
{
    if (sizeHint < 1) {
        errno = EINVAL;
        return -1;
    }
    return epoll_create1(EPOLL_CLOEXEC);
}

int close_s(int descriptor)
{
    /* An interrupted close has released the descriptor; trying again could hit someone else's. */
    return close(descriptor) == 0 || errno == EINTR ? 0 : -1;
}
