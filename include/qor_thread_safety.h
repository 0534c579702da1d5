/*
 * Names for clang's thread-safety analysis: which mutex guards what, who must hold it. Compiled away
 * by other compilers, and with QOR_PLAIN_MUTEX: a platform whose ZIR_Mutex is no capability.
 */
#ifndef QOR_THREAD_SAFETY_H
#define QOR_THREAD_SAFETY_H

#if defined(__clang__) && !defined(QOR_PLAIN_MUTEX)
#define QOR_TSA(x) __attribute__((x))
#else
#define QOR_TSA(x)
#endif

#define QOR_CAPABILITY(name) QOR_TSA(capability(name))
#define QOR_GUARDED_BY(mutex) QOR_TSA(guarded_by(mutex))
#define QOR_ACQUIRED_BEFORE(...) QOR_TSA(acquired_before(__VA_ARGS__))
#define QOR_ACQUIRE(...) QOR_TSA(acquire_capability(__VA_ARGS__))
#define QOR_TRY_ACQUIRE(...) QOR_TSA(try_acquire_capability(__VA_ARGS__))
#define QOR_RELEASE(...) QOR_TSA(release_capability(__VA_ARGS__))
#define QOR_REQUIRES(...) QOR_TSA(requires_capability(__VA_ARGS__))
#define QOR_EXCLUDES(...) QOR_TSA(locks_excluded(__VA_ARGS__))
#define QOR_NO_THREAD_SAFETY QOR_TSA(no_thread_safety_analysis)

#endif
