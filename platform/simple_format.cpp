#include "simple_format.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>

#include "qor_types.h"

namespace {

constexpr int NOT_SIMPLE = -1;
constexpr std::ptrdiff_t LONGEST_NUMBER = 20; /* characters: 2^64 - 1, or a sign and 10 digits */

/* 10^n. */
constexpr auto POWERS = [] {
    std::array<u64, 20> powers{1};
    for (u32 n = 1; n < powers.size(); ++n) {
        powers[n] = powers[n - 1] * 10;
    }
    return powers;
}();

/* The two digits of each number below 100. */
constexpr auto PAIRS = [] {
    std::array<char, 200> pairs{};
    for (std::size_t n = 0; n < 100; ++n) {
        pairs[2 * n] = static_cast<char>('0' + n / 10);
        pairs[2 * n + 1] = static_cast<char>('0' + n % 10);
    }
    return pairs;
}();

u32 countDigits(u64 value)
{
    /* 1233 / 4096 is the logarithm of 2 to the base 10, near enough for 64 bits. */
    const u32 bits = 64 - static_cast<u32>(__builtin_clzll(value | 1));
    const u32 estimate = bits * 1233 >> 12;
    return estimate + (value >= POWERS[estimate] ? 1 : 0);
}

char *putNumber(char *out, u64 value)
{
    if (value < 10) {
        *out = static_cast<char>('0' + value);
        return out + 1;
    }
    char *const end = out + countDigits(value);
    char *next = end;
    for (; value >= 100; value /= 100) {
        next -= 2;
        (void)memcpy(next, &PAIRS[value % 100 * 2], 2);
    }
    if (value >= 10) {
        (void)memcpy(next - 2, &PAIRS[value * 2], 2);
    } else {
        next[-1] = static_cast<char>('0' + value);
    }
    return end;
}

char *putSigned(char *out, int value)
{
    if (value >= 0) {
        return putNumber(out, static_cast<u64>(value));
    }
    *out = '-';
    return putNumber(out + 1, 0 - static_cast<u64>(value));
}

/* The end of the text, or null when it does not fit before `end`. */
char *putText(char *out, const char *end, const char *text)
{
    const auto room = static_cast<size_t>(end - out);
    const size_t length = text != nullptr ? strnlen(text, room + 1) : room + 1;
    if (length > room) {
        return nullptr;
    }
    (void)memcpy(out, text, length);
    return out + length;
}

/* Formats up to the terminator, which has no room before `end`; null when it is not simple. */
char *formatAll(char *out, const char *end, const char *format, va_list arguments)
{
    for (;;) {
        for (; *format != '%'; ++format, ++out) {
            if (*format == '\0') {
                return out;
            }
            if (out == end) {
                return nullptr;
            }
            *out = *format;
        }
        /* Close to the end the C library takes over, so that a number needs no care. */
        if (format[1] != 's' && end - out < LONGEST_NUMBER) {
            return nullptr;
        }
        switch (format[1]) {
        case 'd':
            out = putSigned(out, va_arg(arguments, int));
            break;
        case 'u':
            out = putNumber(out, va_arg(arguments, u32));
            break;
        case 'l':
            if (format[2] != 'l' || format[3] != 'u') {
                return nullptr;
            }
            out = putNumber(out, va_arg(arguments, u64));
            format += 2;
            break;
        case 's':
            out = putText(out, end, va_arg(arguments, const char *));
            if (out == nullptr) {
                return nullptr;
            }
            break;
        case '%':
            *out++ = '%';
            break;
        default:
            return nullptr;
        }
        format += 2;
    }
}

} // namespace

int formatSimple(char *dest, size_t room, const char *format, va_list arguments)
{
    va_list own;
    va_copy(own, arguments);
    char *end = formatAll(dest, dest + std::min<size_t>(room, INT_MAX) - 1, format, own);
    va_end(own);
    if (end == nullptr) {
        return NOT_SIMPLE;
    }
    *end = '\0';
    return static_cast<int>(end - dest);
}
