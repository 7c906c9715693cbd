/// @file
/// Lock rules written where the compiler can check them: which lock guards a
/// member, which lock a function needs or takes. Clang checks them with
/// `-Wthread-safety` (CI builds the library so, with warnings as errors); other
/// compilers see nothing. Every macro carries the ZEL_ prefix, so that a
/// client's own GUARDED_BY and friends never clash with these.
#pragma once

/// @def ZEL_THREAD_ANNOTATION_
/// The attribute `x` under clang; nothing for other compilers.
#if defined(__clang__)
#define ZEL_THREAD_ANNOTATION_(x) __attribute__((x))
#else
#define ZEL_THREAD_ANNOTATION_(x)
#endif

/// A class whose objects are locks ("mutex", "shared_mutex", ...).
#define ZEL_CAPABILITY(name) ZEL_THREAD_ANNOTATION_(capability(name))

/// A class whose objects hold a lock for their lifetime (an RAII lock).
#define ZEL_SCOPED_CAPABILITY ZEL_THREAD_ANNOTATION_(scoped_lockable)

/// A member or variable read and written only with lock `x` held. On a public
/// member of an installed header it goes on a line of its own before the
/// declaration, where the API reference's parser passes over it.
#define ZEL_GUARDED_BY(x) ZEL_THREAD_ANNOTATION_(guarded_by(x))

/// A pointer whose target is read and written only with lock `x` held (the
/// pointer itself is not guarded).
#define ZEL_PT_GUARDED_BY(x) ZEL_THREAD_ANNOTATION_(pt_guarded_by(x))

/// A function that must be called with the given locks held, exclusively.
#define ZEL_REQUIRES(...) ZEL_THREAD_ANNOTATION_(requires_capability(__VA_ARGS__))

/// A function that must be called with the given locks held, at least shared.
#define ZEL_REQUIRES_SHARED(...) ZEL_THREAD_ANNOTATION_(requires_shared_capability(__VA_ARGS__))

/// A function that takes the given locks itself: never call it with them held.
#define ZEL_EXCLUDES(...) ZEL_THREAD_ANNOTATION_(locks_excluded(__VA_ARGS__))

/// A function that returns holding the given locks (no argument: the object
/// itself), exclusively.
#define ZEL_ACQUIRE(...) ZEL_THREAD_ANNOTATION_(acquire_capability(__VA_ARGS__))

/// A function that returns holding the given locks (no argument: the object
/// itself), shared.
#define ZEL_ACQUIRE_SHARED(...) ZEL_THREAD_ANNOTATION_(acquire_shared_capability(__VA_ARGS__))

/// A function that lets go of the given locks (no argument: the object itself,
/// or everything a scoped lock holds).
#define ZEL_RELEASE(...) ZEL_THREAD_ANNOTATION_(release_capability(__VA_ARGS__))

/// A function that lets go of the given locks held shared (no argument: the
/// object itself).
#define ZEL_RELEASE_SHARED(...) ZEL_THREAD_ANNOTATION_(release_shared_capability(__VA_ARGS__))

/// A function that tries to take the given locks: it holds them when it
/// returned the first argument (true or false).
#define ZEL_TRY_ACQUIRE(...) ZEL_THREAD_ANNOTATION_(try_acquire_capability(__VA_ARGS__))

/// A function that returns (a reference to) lock `x`: callers may lock what it
/// returns and be known to hold `x`.
#define ZEL_RETURN_CAPABILITY(x) ZEL_THREAD_ANNOTATION_(lock_returned(x))

/// Turns the check off for one function. Every use says why next to it.
#define ZEL_NO_THREAD_SAFETY_ANALYSIS ZEL_THREAD_ANNOTATION_(no_thread_safety_analysis)
