// zorlib.h - the secure-socket toolkit as the library sees it: the entry
// points it resolves by name when it loads the toolkit, the identifiers and
// values it passes, the I/O callback record it hands over, and the secure
// record a connection's socket buffer carries once it is secure.
#ifndef ZLDAP_ZORLIB_H
#define ZLDAP_ZORLIB_H

#include <cstdint>
#include <pthread.h>

// Toolkit handles are opaque pointer-sized values.
typedef void *zor_handle;

// Reason codes the library acts on.
inline constexpr int ZOR_OK = 0;
inline constexpr int ZOR_ERR_READ_FAILED = 406;
inline constexpr int ZOR_ERR_BAD_V3_CIPHER = 422;
inline constexpr int ZOR_WOULD_BLOCK = 502;
// zor_environment_init refuses the environment in FIPS mode; the library
// retries once with FIPS processing off.
inline constexpr int ZOR_ERR_FIPS_RETRY = 207;

// Attribute identifiers the library sets; what they mean is the toolkit's.
inline constexpr int ZOR_USER_DATA = 200;
inline constexpr int ZOR_KEYRING_FILE = 201;
inline constexpr int ZOR_KEYRING_PW = 202;
inline constexpr int ZOR_KEYRING_LABEL = 203;
inline constexpr int ZOR_KEYRING_STASH_FILE = 204;
inline constexpr int ZOR_V3_CIPHER_SPECS = 206;
inline constexpr int ZOR_CONNECTION_CIPHER = 207;
inline constexpr int ZOR_CONNECTION_PROTOCOL = 208;
inline constexpr int ZOR_PKCS11_DRIVER_PATH = 213;
inline constexpr int ZOR_PKCS11_TOKEN_LABEL = 214;
inline constexpr int ZOR_PKCS11_TOKEN_PWD = 215;
inline constexpr int ZOR_TLSV10_CIPHER_SPECS = 218;
inline constexpr int ZOR_TLSV11_CIPHER_SPECS = 237;
inline constexpr int ZOR_TLSV12_CIPHER_SPECS_EX = 243;
inline constexpr int ZOR_CONNECTION_CIPHER_NAME = 244;
inline constexpr int ZOR_SSL_EXTN_SIGALG = 245;
inline constexpr int ZOR_FD = 300;
inline constexpr int ZOR_SESSION_TIMEOUT = 302;
inline constexpr int ZOR_PROTOCOL_SSLV2 = 403;
inline constexpr int ZOR_PROTOCOL_SSLV3 = 404;
inline constexpr int ZOR_PROTOCOL_TLSV1 = 407;
inline constexpr int ZOR_FIPS_MODE_PROCESSING = 415;
inline constexpr int ZOR_BASE_CRYPTO_LIBRARY = 416;
inline constexpr int ZOR_PKCS11_ACCELERATOR = 417;
inline constexpr int ZOR_SSL_FIPS_MODE_PROCESSING = 420;
inline constexpr int ZOR_VOC_FIPS_MODE_PROCESSING = 421;
inline constexpr int ZOR_SSL_SUITEB_128BIT_MODE_PROCESSING = 455;
inline constexpr int ZOR_PROTOCOL_TLSV10 = 436;
inline constexpr int ZOR_PROTOCOL_TLSV11 = 437;
inline constexpr int ZOR_PROTOCOL_TLSV12 = 438;
inline constexpr int ZOR_SSL_SUITEB_192BIT_MODE_PROCESSING = 456;
inline constexpr int ZOR_PEER_CERT_INFO = 700;
inline constexpr int ZOR_IO_CALLBACK = 800;

// Enumeration values.
inline constexpr int ZOR_SSLV2_OFF = 511;
inline constexpr int ZOR_SSLV3_ON = 512;
inline constexpr int ZOR_SSLV3_OFF = 513;
inline constexpr int ZOR_TLSV1_ON = 518;
inline constexpr int ZOR_FIPS_MODE_PROCESSING_ON = 544;
inline constexpr int ZOR_FIPS_MODE_PROCESSING_OFF = 545;
inline constexpr int ZOR_BASE_CRYPTO_VOC = 547;
inline constexpr int ZOR_ACCELERATOR_SYMMETRIC_ON = 549;
inline constexpr int ZOR_ACCELERATOR_DIGEST_ON = 551;
inline constexpr int ZOR_ACCELERATOR_RANDOM_ON = 553;
inline constexpr int ZOR_SSL_FIPS_MODE_PROCESSING_ON = 573;
inline constexpr int ZOR_VOC_FIPS_MODE_PROCESSING_ON = 575;

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

// All NULL until the toolkit is loaded. attribute_set_buffer is the
// library's tracing wrapper around the toolkit's entry point.
extern zorlib_entry_points g_zorlib;

// The I/O callback record (six pointer slots) an environment hands to
// every secure socket: all socket I/O of the toolkit goes through it.
struct ZorIoCallbacks {
    int (*read)(int fd, void *buffer, int length, void *user_data);
    int (*write)(int fd, const void *buffer, int length, void *user_data);
    void *reserved1;
    int (*set_socket_options)(int fd, int command, void *user_data);
    void *reserved2;
    void *reserved3;
};

// The secure record of a socket buffer; its first field is the toolkit's
// secure-socket handle. One connection is read by one thread and written by
// another at the same time, but a secure socket takes one call at a time:
// io_mutex serialises the toolkit's calls on it.
struct zor_secure_record {
    zor_handle soc;
    pthread_mutex_t io_mutex;
};

// The toolkit's text for a reason code, for error traces; "Zorlib not
// loaded" while its zor_strerror is not resolved.
const char *zorErrorText(int reason);

#endif
