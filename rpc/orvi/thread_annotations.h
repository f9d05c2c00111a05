// SPDX-License-Identifier: Apache-2.0
// Lock rules that the compiler checks. Clang's -Wthread-safety reads these
// attributes; other compilers see nothing. Fields say which mutex guards
// them (GUARDED_BY), functions which mutex they need held (REQUIRES) or must
// not be called with (EXCLUDES), and mutexes the order in which they are
// taken (ACQUIRED_BEFORE/ACQUIRED_AFTER; checked with -Wthread-safety-beta).
// Includes only standard headers.
// Public header: includes only other public headers.
#pragma once

#if defined(__clang__)
#define ORVI_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ORVI_THREAD_ANNOTATION(x)
#endif

#ifndef CAPABILITY
#define CAPABILITY(x) ORVI_THREAD_ANNOTATION(capability(x))
#endif
#ifndef SCOPED_CAPABILITY
#define SCOPED_CAPABILITY ORVI_THREAD_ANNOTATION(scoped_lockable)
#endif
#ifndef GUARDED_BY
#define GUARDED_BY(x) ORVI_THREAD_ANNOTATION(guarded_by(x))
#endif
#ifndef PT_GUARDED_BY
#define PT_GUARDED_BY(x) ORVI_THREAD_ANNOTATION(pt_guarded_by(x))
#endif
#ifndef ACQUIRED_BEFORE
#define ACQUIRED_BEFORE(...) ORVI_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#endif
#ifndef ACQUIRED_AFTER
#define ACQUIRED_AFTER(...) ORVI_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#endif
#ifndef REQUIRES
#define REQUIRES(...) ORVI_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#endif
#ifndef ACQUIRE
#define ACQUIRE(...) ORVI_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#endif
#ifndef RELEASE
#define RELEASE(...) ORVI_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#endif
#ifndef TRY_ACQUIRE
#define TRY_ACQUIRE(...) ORVI_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#endif
#ifndef EXCLUDES
#define EXCLUDES(...) ORVI_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#endif
#ifndef NO_THREAD_SAFETY_ANALYSIS
#define NO_THREAD_SAFETY_ANALYSIS ORVI_THREAD_ANNOTATION(no_thread_safety_analysis)
#endif
