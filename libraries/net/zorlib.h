// zorlib.h - the secure-socket toolkit as the library sees it: the entry
// points it resolves by name when it loads the toolkit, and the secure
// record a connection's socket buffer carries once it is secure.
#ifndef ZLDAP_ZORLIB_H
#define ZLDAP_ZORLIB_H

#include <cstdint>

// Toolkit handles are opaque pointer-sized values.
typedef void *zor_handle;

// Reason codes the library acts on.
inline constexpr int ZOR_OK = 0;
inline constexpr int ZOR_ERR_READ_FAILED = 406;
inline constexpr int ZOR_ERR_BAD_V3_CIPHER = 422;
inline constexpr int ZOR_WOULD_BLOCK = 502;

struct zor_cert_element {
    int32_t type;
    const char *text;
};

// Every entry point returns 0 or a toolkit reason code.
struct zorlib_entry_points {
    int (*environment_open)(zor_handle *env);
    int (*environment_close)(zor_handle *env);
    int (*environment_init)(zor_handle env);
    int (*secure_soc_open)(zor_handle env, zor_handle *soc);
    int (*secure_soc_init)(zor_handle soc);
    int (*secure_soc_close)(zor_handle *soc);
    int (*secure_soc_read)(zor_handle soc, char *buffer, int length, int *count);
    int (*secure_soc_write)(zor_handle soc, const char *buffer, int length, int *count);
    int (*attribute_set_buffer)(zor_handle h, int id, const void *value, int length);
    int (*attribute_get_buffer)(zor_handle h, int id, const char **value, int *length);
    int (*attribute_set_callback)(zor_handle env, int id, const void *callbacks);
    int (*attribute_get_cert_info)(zor_handle soc, int id, zor_cert_element **elements, int *count);
    int (*attribute_set_numeric_value)(zor_handle h, int id, int value);
    int (*attribute_set_enum)(zor_handle h, int id, int value);
    const char *(*strerror)(int reason);
    int (*attribute_get_numeric_value)(zor_handle h, int id, int *value);
    int (*attribute_get_enum)(zor_handle h, int id, int *value);
    int (*get_cert_by_label)(zor_handle env, const char *label, void **cert);
};

// All NULL until the toolkit is loaded.
extern zorlib_entry_points g_zorlib;

// The secure record of a socket buffer; its first field is the toolkit's
// secure-socket handle.
struct zor_secure_record {
    zor_handle soc;
};

// The toolkit's text for a reason code, "" while it is not loaded.
const char *zorlib_reason_text(int reason);

#endif
