// Lock annotations for clang's thread-safety analysis (-Wthread-safety). They state which lock
// guards a field and which lock a function needs, so that the compiler checks what comments
// only promise. Other compilers see nothing.
#pragma once

#if defined(__clang__)
#define VELMAR_TSA(x) __attribute__((x))
#else
#define VELMAR_TSA(x)
#endif

// A type that is a lock.
#define CAPABILITY(name) VELMAR_TSA(capability(name))
// An object that holds a lock for its lifetime.
#define SCOPED_CAPABILITY VELMAR_TSA(scoped_lockable)
// A field read and written only with the lock held.
#define GUARDED_BY(lock) VELMAR_TSA(guarded_by(lock))
// A pointer whose target is read and written only with the lock held.
#define PT_GUARDED_BY(lock) VELMAR_TSA(pt_guarded_by(lock))
// A function the caller calls with the locks held / not held.
#define REQUIRES(...) VELMAR_TSA(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VELMAR_TSA(locks_excluded(__VA_ARGS__))
// A function that takes / releases the lock.
#define ACQUIRE(...) VELMAR_TSA(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VELMAR_TSA(release_capability(__VA_ARGS__))
// A function after which the analysis takes the lock as held (it is not checked at run time).
#define ASSERT_CAPABILITY(x) VELMAR_TSA(assert_capability(x))
// A function whose locking the analysis cannot follow; each use says why.
#define NO_THREAD_SAFETY_ANALYSIS VELMAR_TSA(no_thread_safety_analysis)
