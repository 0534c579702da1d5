/* Base types of every component of the forwarding manager. */
#ifndef QOR_TYPES_H
#define QOR_TYPES_H

#ifdef __cplusplus
#define QOR_BEGIN_C extern "C" {
#define QOR_END_C }
#define QOR_STATIC_ASSERT_ALWAYS static_assert
#else
#define QOR_BEGIN_C
#define QOR_END_C
#define QOR_STATIC_ASSERT_ALWAYS _Static_assert
#endif

QOR_STATIC_ASSERT_ALWAYS(sizeof(void *) == 8, "the forwarding manager is 64-bit code");
/* For layouts, which are those of 64-bit code: elsewhere the error above says it all. */
#define QOR_STATIC_ASSERT(condition, text)                                                         \
    QOR_STATIC_ASSERT_ALWAYS(sizeof(void *) != 8 || (condition), text)

/* What a shared object shows to the process; everything else is built hidden. */
#define QOR_API __attribute__((visibility("default")))

typedef unsigned char u8;
typedef unsigned short u16;
typedef unsigned int u32;
typedef unsigned long long u64; /* not uint64_t, so that %llu is right everywhere */
typedef signed char i8;
typedef short i16;

/* Results of nearly every operation. Where others can occur, the operation says so. */
#ifdef __cplusplus
constexpr u32 QOR_OK = 0;
constexpr u32 QOR_FAIL = 1;
#else
enum { QOR_OK = 0, QOR_FAIL = 1 };
#endif

#endif
