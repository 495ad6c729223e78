// conf_file.h - the plug-in configuration file "ornldap.conf": finding it,
// reading its lines into records and looking records up. A line names,
// blank- or tab-separated, a type, a subtype, a name and a library, then
// optionally an init function and, up to the next tab, its arguments:
//     plugin sasl DIGEST-MD5 /usr/lib/sasl/libdigest.so digest_init -v 2
#ifndef ZLDAP_CONF_FILE_H
#define ZLDAP_CONF_FILE_H

#include <atomic>
#include <cstdio>

// One accepted line: the line itself and the fields pointing into it.
struct ldap_conf_record {
    char line[512];
    char *type;
    char *subtype;
    char *name;
    char *library;
    char *init_func; // NULL when the line names none
    char *args;      // NULL when nothing follows the init function
    ldap_conf_record *next;
};

struct ldap_conf_list {
    ldap_conf_record *first;
    ldap_conf_record *last;
    // Set once the file has been read whole; the records are then never
    // changed again.
    std::atomic<bool> read;
};

// The process's configuration list, guarded by the plug-in lock and kept
// until the process ends.
ldap_conf_list *ldap_process_conf_list();

// A new copy of the path of the first configuration file that can be
// opened for reading: in the directory ORNLDAP_CONF names, then in the
// installation's etc directory, then in the installation directory. NULL
// when there is none.
char *ldap_locate_conf_file();
// The located file opened for reading, or NULL.
FILE *ldap_open_conf_file();

// Reads the configuration file into list once: 0 (also when it was read
// before), 192 when no file can be opened (a later call tries again), 90.
// Takes the plug-in lock.
int ldap_read_conf_file(ldap_conf_list *list);
// Appends a record for every accepted line of file: 0 or 90 (the records
// appended so far stay in the list).
int ldap_process_conf_data(FILE *file, ldap_conf_list *list);
// Releases every record and clears the list.
void ldap_conf_list_clear(ldap_conf_list *list);

// The record whose type, subtype and name are these (letter case counts),
// or NULL. The caller holds the plug-in lock or the list has been read.
const ldap_conf_record *ldap_conf_find(const ldap_conf_list *list, const char *type, const char *subtype,
                                       const char *name);

#endif
