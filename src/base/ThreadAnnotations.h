#pragma once

/// @file
/// Marks for clang's lock analysis (-Wthread-safety). Other compilers see nothing of them.
/// @see https://clang.llvm.org/docs/ThreadSafetyAnalysis.html

#if defined(__clang__)
#define TX_THREAD_ANNOTATION(mark) __attribute__((mark))
#else
#define TX_THREAD_ANNOTATION(mark)
#endif

#define TX_CAPABILITY(name) TX_THREAD_ANNOTATION(capability(name))
#define TX_SCOPED_CAPABILITY TX_THREAD_ANNOTATION(scoped_lockable)
#define TX_GUARDED_BY(lock) TX_THREAD_ANNOTATION(guarded_by(lock))
#define TX_REQUIRES(...) TX_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TX_EXCLUDES(...) TX_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define TX_ACQUIRE(...) TX_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TX_RELEASE(...) TX_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
