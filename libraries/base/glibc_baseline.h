// glibc_baseline.h - binds the library's calls to the oldest glibc symbol
// versions that behave as the current ones, so that the shared object needs
// nothing newer than GLIBC_2.17 and loads on every glibc from 2.17 on.
//
// The build force-includes this file into every library object
// (-include, see the top CMakeLists.txt) instead of having a base header
// include it: a pin only acts in an object that carries it, and an object
// whose includes happen to skip the base headers would otherwise bind
// silently to the newest version. A .symver of a name an object never
// calls adds nothing to that object.
//
// Since glibc 2.34 the thread and loader functions live in libc itself,
// at a new default version GLIBC_2.34, with their old versions (once in
// libpthread.so.0 and libdl.so.2) still present; the shared object keeps
// libpthread.so.0 and libdl.so.2 as needed libraries so that the old
// versions are found on an older glibc.
//
// Only functions whose default version is newer than 2.17 are listed, each
// at its oldest x86_64 version (objdump -T of libc.so.6). Left out on
// purpose:
// - pthread_cond_*: their default GLIBC_2.3.2 is already old enough; the
//   older GLIBC_2.2.5 ones take the condition variable of an earlier,
//   smaller layout and must never be pinned.
// - realpath: its default GLIBC_2.3 allocates the result when given no
//   buffer; the GLIBC_2.2.5 one does not.
// - Functions without an old version cannot be pinned and must not be
//   called: stat, fstat and lstat (GLIBC_2.33), getentropy, arc4random,
//   thread_local objects with destructors (__cxa_thread_atexit_impl,
//   GLIBC_2.18). scripts/check_glibc_baseline fails the build's tests on
//   any such need.
#ifndef ZLDAP_GLIBC_BASELINE_H
#define ZLDAP_GLIBC_BASELINE_H

#if defined(__x86_64__) && defined(__linux__)

#define ZLDAP_GLIBC_PIN(name, version) __asm__(".symver " #name "," #name "@" version)

// Dynamic loading (libdl.so.2 before glibc 2.34).
ZLDAP_GLIBC_PIN(dlopen, "GLIBC_2.2.5");
ZLDAP_GLIBC_PIN(dlsym, "GLIBC_2.2.5");
ZLDAP_GLIBC_PIN(dlclose, "GLIBC_2.2.5");
ZLDAP_GLIBC_PIN(dlerror, "GLIBC_2.2.5");
ZLDAP_GLIBC_PIN(dladdr, "GLIBC_2.2.5");

// Threads (libpthread.so.0 before glibc 2.34).
ZLDAP_GLIBC_PIN(pthread_once, "GLIBC_2.2.5");
ZLDAP_GLIBC_PIN(pthread_key_create, "GLIBC_2.2.5");
ZLDAP_GLIBC_PIN(pthread_key_delete, "GLIBC_2.2.5");
ZLDAP_GLIBC_PIN(pthread_setspecific, "GLIBC_2.2.5");
ZLDAP_GLIBC_PIN(pthread_mutex_trylock, "GLIBC_2.2.5");
ZLDAP_GLIBC_PIN(pthread_mutex_timedlock, "GLIBC_2.2.5");
ZLDAP_GLIBC_PIN(pthread_mutexattr_init, "GLIBC_2.2.5");
ZLDAP_GLIBC_PIN(pthread_mutexattr_settype, "GLIBC_2.2.5");
ZLDAP_GLIBC_PIN(pthread_mutexattr_destroy, "GLIBC_2.2.5");

#undef ZLDAP_GLIBC_PIN

#endif

#endif
