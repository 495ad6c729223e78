// ldap_ssl_load.h - loading the secure-socket toolkit once per process and
// handing out its entry points.
#ifndef ZLDAP_LDAP_SSL_LOAD_H
#define ZLDAP_LDAP_SSL_LOAD_H

#include "net/zorlib.h"

// Opens the toolkit's four libraries and resolves its entry points into
// g_zorlib. 0 (also when already loaded), or 118 with nothing kept, so that
// a later call starts over. The caller holds ldap_ssl_mutex.
int loadXeltShared();

// The entry points as getZorFunctionTable hands them out; set_buffer is
// the library's tracing wrapper.
struct ZorFunctionTable {
    decltype(zorlib_entry_points::environment_open) environment_open;
    decltype(zorlib_entry_points::environment_close) environment_close;
    decltype(zorlib_entry_points::environment_init) environment_init;
    decltype(zorlib_entry_points::secure_soc_open) secure_soc_open;
    decltype(zorlib_entry_points::secure_soc_init) secure_soc_init;
    decltype(zorlib_entry_points::secure_soc_close) secure_soc_close;
    decltype(zorlib_entry_points::secure_soc_read) secure_soc_read;
    decltype(zorlib_entry_points::secure_soc_write) secure_soc_write;
    decltype(zorlib_entry_points::attribute_set_buffer) attribute_set_buffer;
    decltype(zorlib_entry_points::attribute_get_buffer) attribute_get_buffer;
    decltype(zorlib_entry_points::attribute_set_numeric_value) attribute_set_numeric_value;
    decltype(zorlib_entry_points::attribute_get_numeric_value) attribute_get_numeric_value;
    decltype(zorlib_entry_points::attribute_set_enum) attribute_set_enum;
    decltype(zorlib_entry_points::attribute_get_enum) attribute_get_enum;
    decltype(zorlib_entry_points::attribute_set_callback) attribute_set_callback;
    decltype(zorlib_entry_points::attribute_get_cert_info) attribute_get_cert_info;
    decltype(zorlib_entry_points::get_cert_by_label) get_cert_by_label;
};

// Fills table (NULL entries while the toolkit is not loaded).
void getZorFunctionTable(ZorFunctionTable *table);

#endif
