// fast_tls.h - thread-local variables that the hot paths reach on every
// call. The initial-exec model reads them at a fixed offset from the
// thread pointer instead of calling __tls_get_addr. A shared object loaded
// with dlopen then takes its thread-local block from the static TLS space
// that glibc keeps in reserve for such objects (512 bytes or more); ours
// needs well under 100, so keep only small records here.
#ifndef ZLDAP_FAST_TLS_H
#define ZLDAP_FAST_TLS_H

#define ZLDAP_FAST_TLS __attribute__((tls_model("initial-exec")))

#endif
