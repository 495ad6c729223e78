/* zor_toolkit.h - Zorlib, the secure-socket toolkit: the eighteen entry
 * points of libzor8ssl_64.so, the attribute identifiers and values they
 * take, the reason codes they return, the I/O callback record and the
 * peer-certificate element types. Handles are opaque pointer-sized values;
 * every entry point returns 0 or a reason code that zor_strerror explains. */
#ifndef ZOR_TOOLKIT_H
#define ZOR_TOOLKIT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void *zor_handle;

/* One element of the peer certificate (attribute 700). */
typedef struct zor_cert_element {
    int32_t type;
    const char *text;
} zor_cert_element;

/* The I/O callback record (attribute 800): six pointer slots. Reads and
 * writes return a byte count, 0 at end of stream, or -1 with errno set
 * (EWOULDBLOCK: nothing moved within the caller's wait). user_data is the
 * secure socket's stored copy of attribute 200, or NULL. set_socket_options
 * gets a scratch text of 8 bytes as its user data, never the record. */
typedef struct zor_io_callbacks {
    int (*read)(int fd, void *buffer, int length, void *user_data);
    int (*write)(int fd, const void *buffer, int length, void *user_data);
    void *reserved1;
    int (*set_socket_options)(int fd, int command, void *user_data);
    void *reserved2;
    void *reserved3;
} zor_io_callbacks;

/* Attribute identifiers. E: environment, S: secure socket, E/S: both (a
 * socket starts with its environment's value). */
enum {
    ZOR_USER_DATA = 200,              /* S buffer, copied whole, handed to the callbacks */
    ZOR_KEYRING_FILE = 201,           /* E buffer: key database (PKCS#12) */
    ZOR_KEYRING_PW = 202,             /* E buffer: its password (write only) */
    ZOR_KEYRING_LABEL = 203,          /* E/S buffer: label of the client key */
    ZOR_KEYRING_STASH_FILE = 204,     /* E buffer: stash file, used without a password */
    ZOR_V3_CIPHER_SPECS = 206,        /* E/S buffer: two-hex-digit suite codes */
    ZOR_CONNECTION_CIPHER = 207,      /* S get: code of the suite in use; E get: the last one */
    ZOR_CONNECTION_PROTOCOL = 208,    /* S get: "TLS12" or "TLS13" */
    ZOR_PKCS11_DRIVER_PATH = 213,     /* E buffer */
    ZOR_PKCS11_TOKEN_LABEL = 214,     /* E buffer */
    ZOR_PKCS11_TOKEN_PWD = 215,       /* E buffer (write only) */
    ZOR_TLSV10_CIPHER_SPECS = 218,    /* E/S buffer: two-hex-digit suite codes */
    ZOR_TLSV11_CIPHER_SPECS = 237,    /* E/S buffer: two-hex-digit suite codes */
    ZOR_TLSV12_CIPHER_SPECS_EX = 243, /* E/S buffer: four-hex-digit suite codes */
    ZOR_CONNECTION_CIPHER_NAME = 244, /* S get: standard name of the suite in use */
    ZOR_SSL_EXTN_SIGALG = 245,        /* E buffer: four-hex-digit signature scheme codes */
    ZOR_FD = 300,                     /* S numeric: the socket descriptor */
    ZOR_V3_SESSION_TIMEOUT = 302,     /* E numeric: session lifetime in seconds, 0 to 86400 */
    ZOR_PROTOCOL_SSLV2 = 403,         /* E/S enum: 510 on, 511 off (never negotiated) */
    ZOR_PROTOCOL_SSLV3 = 404,         /* E/S enum: 512 on, 513 off (never negotiated) */
    ZOR_PROTOCOL_TLSV1 = 407,         /* E/S enum: 518 on, 519 off: TLS 1.2 and 1.3 */
    ZOR_FIPS_MODE_PROCESSING = 415,   /* E enum: 544 on, 545 off */
    ZOR_BASE_CRYPTO_LIBRARY = 416,    /* E enum: 546 system, 547 VOC */
    ZOR_PKCS11_ACCELERATOR = 417,     /* E enum: 548..553 */
    ZOR_SSL_FIPS_MODE_PROCESSING = 420, /* E enum: 572 off, 573 on */
    ZOR_VOC_FIPS_MODE_PROCESSING = 421, /* E enum: 574 off, 575 on */
    ZOR_PROTOCOL_TLSV10 = 436,        /* E/S enum: 1 on, 0 off (never negotiated) */
    ZOR_PROTOCOL_TLSV11 = 437,        /* E/S enum: 1 on, 0 off (never negotiated) */
    ZOR_PROTOCOL_TLSV12 = 438,        /* E/S enum: 1 on, 0 off */
    ZOR_SSL_SUITEB_128BIT_MODE_PROCESSING = 455, /* E enum: 1 on, 0 off */
    ZOR_SSL_SUITEB_192BIT_MODE_PROCESSING = 456, /* E enum: 1 on, 0 off */
    ZOR_PEER_CERT_INFO = 700,         /* S cert info: the peer certificate's elements */
    ZOR_IO_CALLBACK = 800             /* E callback: zor_io_callbacks */
};

/* Enumeration values. */
enum {
    ZOR_SSLV2_ON = 510, ZOR_SSLV2_OFF = 511,
    ZOR_SSLV3_ON = 512, ZOR_SSLV3_OFF = 513,
    ZOR_TLSV1_ON = 518, ZOR_TLSV1_OFF = 519,
    ZOR_FIPS_MODE_PROCESSING_ON = 544, ZOR_FIPS_MODE_PROCESSING_OFF = 545,
    ZOR_BASE_CRYPTO_SYSTEM = 546, ZOR_BASE_CRYPTO_VOC = 547,
    ZOR_ACCELERATOR_SYMMETRIC_OFF = 548, ZOR_ACCELERATOR_SYMMETRIC_ON = 549,
    ZOR_ACCELERATOR_DIGEST_OFF = 550, ZOR_ACCELERATOR_DIGEST_ON = 551,
    ZOR_ACCELERATOR_RANDOM_OFF = 552, ZOR_ACCELERATOR_RANDOM_ON = 553,
    ZOR_SSL_FIPS_MODE_PROCESSING_OFF = 572, ZOR_SSL_FIPS_MODE_PROCESSING_ON = 573,
    ZOR_VOC_FIPS_MODE_PROCESSING_OFF = 574, ZOR_VOC_FIPS_MODE_PROCESSING_ON = 575
};

/* Reason codes (with the texts of zor_strerror). */
enum {
    ZOR_OK = 0,
    ZOR_ERR_INVALID_HANDLE = 1,
    ZOR_ERR_INTERNAL = 3,
    ZOR_ERR_INSUFFICIENT_STORAGE = 4,
    ZOR_ERR_INVALID_STATE = 5,
    ZOR_ERR_KEY_LABEL_NOT_FOUND = 6,
    ZOR_ERR_KEYFILE_INVALID_FORMAT = 103,
    ZOR_ERR_NO_PASSWORD = 201,
    ZOR_ERR_KEYRING_OPEN = 202,
    ZOR_ERR_FIPS_KEYRING = 207,        /* FIPS on, the key database is not usable in FIPS mode */
    ZOR_ERR_NO_CIPHERS = 402,
    ZOR_ERR_NO_CERTIFICATE = 403,
    ZOR_ERR_BAD_CERTIFICATE = 404,
    ZOR_ERR_IO = 406,
    ZOR_ERR_BAD_KEYFILE_PASSWORD = 408,
    ZOR_ERR_BAD_MESSAGE = 410,
    ZOR_ERR_BAD_MAC = 411,
    ZOR_ERR_BAD_PEER = 415,
    ZOR_ERR_PERMISSION_DENIED = 416,    /* the stash file can be read by group or others */
    ZOR_ERR_NO_READ_FUNCTION = 418,
    ZOR_ERR_NO_WRITE_FUNCTION = 419,
    ZOR_ERR_SOCKET_CLOSED = 420,
    ZOR_ERR_NO_PRIVATE_KEY = 428,
    ZOR_ERR_WOULD_BLOCK = 502,
    ZOR_ERR_INVALID_ATTRIBUTE = 701,
    ZOR_ERR_INVALID_LENGTH = 702,
    ZOR_ERR_INVALID_ENUMERATION = 703,
    ZOR_ERR_INVALID_NUMERIC_VALUE = 705,
    ZOR_ERR_INVALID_SETTING = 706,
    ZOR_ERR_NO_PROTOCOL = 750,         /* no protocol version left: only SSL 3.0, TLS 1.0, 1.1 */
    ZOR_ERR_PKCS11_UNSUPPORTED = 751,
    ZOR_ERR_HANDSHAKE_TIMEOUT = 752,
    /* 1000 + n: the peer's chain failed verification with X509_V_ERR n. */
    ZOR_ERR_VERIFY_BASE = 1000,
    ZOR_ERR_VERIFY_LAST = 1199
};

/* Peer certificate element types (attribute 700). */
enum {
    ZOR_CERT_SERIAL_NUMBER = 601,     /* hexadecimal */
    ZOR_CERT_VERSION = 602,           /* "3" */
    ZOR_CERT_SIGNATURE_ALGORITHM = 603,
    ZOR_CERT_ISSUER_DN = 604,         /* RFC 4514 */
    ZOR_CERT_VALIDITY_NOT_BEFORE = 605, /* "YYYY-MM-DDTHH:MM:SSZ" */
    ZOR_CERT_VALIDITY_NOT_AFTER = 606,
    ZOR_CERT_SUBJECT_DN = 607,
    ZOR_CERT_PUBLIC_KEY_ALGORITHM = 608,
    ZOR_CERT_SUBJECT_CN = 609,
    ZOR_CERT_SAN_DNS = 610,           /* one element per DNS name */
    ZOR_CERT_SAN_EMAIL = 611,
    ZOR_CERT_SAN_IP = 612,
    ZOR_CERT_SAN_URI = 613,
    ZOR_CERT_SHA256_FINGERPRINT = 614,
    ZOR_CERT_ISSUER_CN = 620,
    ZOR_CERT_SAN_ALL = 673            /* every alternative name, "DNS:a, IP:b" */
};

int zor_environment_open(zor_handle *env);
int zor_environment_close(zor_handle *env);
int zor_environment_init(zor_handle env);
int zor_secure_soc_open(zor_handle env, zor_handle *soc);
int zor_secure_soc_init(zor_handle soc);
int zor_secure_soc_close(zor_handle *soc);
/* A NULL buffer with length 1 asks how many decrypted bytes are held. */
int zor_secure_soc_read(zor_handle soc, char *buffer, int length, int *count);
int zor_secure_soc_write(zor_handle soc, const char *buffer, int length, int *count);
/* length 0: value is a NUL-terminated text. */
int zor_attribute_set_buffer(zor_handle h, int id, const void *value, int length);
int zor_attribute_get_buffer(zor_handle h, int id, const char **value, int *length);
int zor_attribute_set_callback(zor_handle env, int id, const void *callbacks);
int zor_attribute_get_cert_info(zor_handle soc, int id, zor_cert_element **elements, int *count);
int zor_attribute_set_numeric_value(zor_handle h, int id, int value);
int zor_attribute_get_numeric_value(zor_handle h, int id, int *value);
int zor_attribute_set_enum(zor_handle h, int id, int value);
int zor_attribute_get_enum(zor_handle h, int id, int *value);
const char *zor_strerror(int reason);
/* The certificate under label as a PEM text owned by the environment. */
int zor_get_cert_by_label(zor_handle env, const char *label, void **cert);

#ifdef __cplusplus
}
#endif

#endif
