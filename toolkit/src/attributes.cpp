// attributes.cpp - the attribute identifiers and what each one changes.
// Environment settings are fixed once the environment is initialised (5
// after that); a socket's connection settings until its handshake starts.
#include "attributes.h"

#include <algorithm>
#include <cctype>
#include <climits>

namespace zor {

namespace {

int text_result(const std::string &text, const char **value, int *length)
{
    *value = text.c_str();
    *length = static_cast<int>(text.size());
    return ZOR_OK;
}

std::string *connection_buffer(ConnectionSettings &s, int id)
{
    switch (id) {
    case ZOR_KEYRING_LABEL:
        return &s.label;
    case ZOR_V3_CIPHER_SPECS:
        return &s.v3_ciphers;
    case ZOR_TLSV10_CIPHER_SPECS:
        return &s.tls10_ciphers;
    case ZOR_TLSV11_CIPHER_SPECS:
        return &s.tls11_ciphers;
    case ZOR_TLSV12_CIPHER_SPECS_EX:
        return &s.tls12_ciphers;
    default:
        return nullptr;
    }
}

int set_connection_buffer(ConnectionSettings &s, int id, std::string_view value)
{
    std::string *field = connection_buffer(s, id);
    if (!field)
        return ZOR_ERR_INVALID_ATTRIBUTE;
    if (id != ZOR_KEYRING_LABEL && !is_code_list(value))
        return ZOR_ERR_INVALID_SETTING;
    field->assign(value);
    return ZOR_OK;
}

// The on/off pair of an enumerated switch, or the plain 1/0 of the TLS
// version switches.
struct Switch {
    int id, on, off;
    bool ConnectionSettings::*field;
};

constexpr Switch kSwitches[] = {
    {ZOR_PROTOCOL_SSLV2, ZOR_SSLV2_ON, ZOR_SSLV2_OFF, &ConnectionSettings::sslv2},
    {ZOR_PROTOCOL_SSLV3, ZOR_SSLV3_ON, ZOR_SSLV3_OFF, &ConnectionSettings::sslv3},
    {ZOR_PROTOCOL_TLSV1, ZOR_TLSV1_ON, ZOR_TLSV1_OFF, &ConnectionSettings::tls1},
    {ZOR_PROTOCOL_TLSV10, 1, 0, &ConnectionSettings::tls10},
    {ZOR_PROTOCOL_TLSV11, 1, 0, &ConnectionSettings::tls11},
    {ZOR_PROTOCOL_TLSV12, 1, 0, &ConnectionSettings::tls12},
};

const Switch *find_switch(int id)
{
    auto it = std::find_if(std::begin(kSwitches), std::end(kSwitches), [id](const Switch &s) { return s.id == id; });
    return it == std::end(kSwitches) ? nullptr : it;
}

int set_connection_enum(ConnectionSettings &s, int id, int value)
{
    const Switch *sw = find_switch(id);
    if (!sw)
        return ZOR_ERR_INVALID_ATTRIBUTE;
    if (value != sw->on && value != sw->off)
        return ZOR_ERR_INVALID_ENUMERATION;
    s.*(sw->field) = value == sw->on;
    return ZOR_OK;
}

int get_connection_enum(const ConnectionSettings &s, int id, int *value)
{
    const Switch *sw = find_switch(id);
    if (!sw)
        return ZOR_ERR_INVALID_ATTRIBUTE;
    *value = s.*(sw->field) ? sw->on : sw->off;
    return ZOR_OK;
}

// The FIPS and Suite B switches of an environment.
int set_fips_enum(FipsSettings &f, int id, int value)
{
    auto pick = [value](bool &field, int on, int off) {
        if (value != on && value != off)
            return ZOR_ERR_INVALID_ENUMERATION;
        field = value == on;
        return ZOR_OK;
    };
    bool flag = false;
    int rc;
    switch (id) {
    case ZOR_FIPS_MODE_PROCESSING:
        return pick(f.fips, ZOR_FIPS_MODE_PROCESSING_ON, ZOR_FIPS_MODE_PROCESSING_OFF);
    case ZOR_SSL_FIPS_MODE_PROCESSING:
        return pick(f.ssl_fips, ZOR_SSL_FIPS_MODE_PROCESSING_ON, ZOR_SSL_FIPS_MODE_PROCESSING_OFF);
    case ZOR_VOC_FIPS_MODE_PROCESSING:
        return pick(f.voc_fips, ZOR_VOC_FIPS_MODE_PROCESSING_ON, ZOR_VOC_FIPS_MODE_PROCESSING_OFF);
    case ZOR_BASE_CRYPTO_LIBRARY:
        if (value != ZOR_BASE_CRYPTO_SYSTEM && value != ZOR_BASE_CRYPTO_VOC)
            return ZOR_ERR_INVALID_ENUMERATION;
        f.base_crypto = value;
        return ZOR_OK;
    case ZOR_PKCS11_ACCELERATOR: {
        if (value < ZOR_ACCELERATOR_SYMMETRIC_OFF || value > ZOR_ACCELERATOR_RANDOM_ON)
            return ZOR_ERR_INVALID_ENUMERATION;
        int bit = 1 << ((value - ZOR_ACCELERATOR_SYMMETRIC_OFF) / 2);
        f.accelerator = (value - ZOR_ACCELERATOR_SYMMETRIC_OFF) % 2 ? f.accelerator | bit : f.accelerator & ~bit;
        return ZOR_OK;
    }
    case ZOR_SSL_SUITEB_128BIT_MODE_PROCESSING:
    case ZOR_SSL_SUITEB_192BIT_MODE_PROCESSING:
        rc = pick(flag, 1, 0);
        if (rc == ZOR_OK) {
            int level = id == ZOR_SSL_SUITEB_128BIT_MODE_PROCESSING ? 128 : 192;
            f.suiteb = flag ? level : (f.suiteb == level ? 0 : f.suiteb);
        }
        return rc;
    default:
        return ZOR_ERR_INVALID_ATTRIBUTE;
    }
}

int get_fips_enum(const FipsSettings &f, int id, int *value)
{
    switch (id) {
    case ZOR_FIPS_MODE_PROCESSING:
        *value = f.fips ? ZOR_FIPS_MODE_PROCESSING_ON : ZOR_FIPS_MODE_PROCESSING_OFF;
        return ZOR_OK;
    case ZOR_SSL_FIPS_MODE_PROCESSING:
        *value = f.ssl_fips ? ZOR_SSL_FIPS_MODE_PROCESSING_ON : ZOR_SSL_FIPS_MODE_PROCESSING_OFF;
        return ZOR_OK;
    case ZOR_VOC_FIPS_MODE_PROCESSING:
        *value = f.voc_fips ? ZOR_VOC_FIPS_MODE_PROCESSING_ON : ZOR_VOC_FIPS_MODE_PROCESSING_OFF;
        return ZOR_OK;
    case ZOR_BASE_CRYPTO_LIBRARY:
        *value = f.base_crypto;
        return ZOR_OK;
    case ZOR_SSL_SUITEB_128BIT_MODE_PROCESSING:
        *value = f.suiteb == 128;
        return ZOR_OK;
    case ZOR_SSL_SUITEB_192BIT_MODE_PROCESSING:
        *value = f.suiteb == 192;
        return ZOR_OK;
    default:
        return ZOR_ERR_INVALID_ATTRIBUTE;
    }
}

} // namespace

bool is_code_list(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
}

int set_environment_buffer(Environment &env, int id, std::string_view value)
{
    if (env.initialised)
        return ZOR_ERR_INVALID_STATE;
    switch (id) {
    case ZOR_KEYRING_FILE:
        env.keyring_file.assign(value);
        return ZOR_OK;
    case ZOR_KEYRING_PW:
        env.keyring_password.assign(value);
        env.has_password = !value.empty();
        return ZOR_OK;
    case ZOR_KEYRING_STASH_FILE:
        env.stash_file.assign(value);
        return ZOR_OK;
    case ZOR_PKCS11_DRIVER_PATH:
        env.pkcs11_path.assign(value);
        return ZOR_OK;
    case ZOR_PKCS11_TOKEN_LABEL:
        env.pkcs11_label.assign(value);
        return ZOR_OK;
    case ZOR_PKCS11_TOKEN_PWD:
        env.pkcs11_password.assign(value);
        return ZOR_OK;
    case ZOR_SSL_EXTN_SIGALG:
        if (!is_code_list(value))
            return ZOR_ERR_INVALID_SETTING;
        env.sigalgs.assign(value);
        return ZOR_OK;
    default:
        return set_connection_buffer(env.defaults, id, value);
    }
}

int get_environment_buffer(Environment &env, int id, const char **value, int *length)
{
    switch (id) {
    case ZOR_KEYRING_FILE:
        return text_result(env.keyring_file, value, length);
    case ZOR_KEYRING_STASH_FILE:
        return text_result(env.stash_file, value, length);
    case ZOR_PKCS11_DRIVER_PATH:
        return text_result(env.pkcs11_path, value, length);
    case ZOR_PKCS11_TOKEN_LABEL:
        return text_result(env.pkcs11_label, value, length);
    case ZOR_SSL_EXTN_SIGALG:
        return text_result(env.sigalgs, value, length);
    case ZOR_CONNECTION_CIPHER: {
        // The suite of the environment's latest handshake; the storage is
        // the environment's and stays valid while it lives.
        std::lock_guard<std::mutex> lock(env.mutex);
        *value = env.last_cipher;
        *length = static_cast<int>(std::char_traits<char>::length(env.last_cipher));
        return ZOR_OK;
    }
    default:
        std::string *field = connection_buffer(env.defaults, id);
        return field ? text_result(*field, value, length) : ZOR_ERR_INVALID_ATTRIBUTE;
    }
}

int set_environment_enum(Environment &env, int id, int value)
{
    if (env.initialised)
        return ZOR_ERR_INVALID_STATE;
    int rc = set_connection_enum(env.defaults, id, value);
    return rc == ZOR_ERR_INVALID_ATTRIBUTE ? set_fips_enum(env.fips, id, value) : rc;
}

int get_environment_enum(const Environment &env, int id, int *value)
{
    int rc = get_connection_enum(env.defaults, id, value);
    return rc == ZOR_ERR_INVALID_ATTRIBUTE ? get_fips_enum(env.fips, id, value) : rc;
}

int set_environment_numeric(Environment &env, int id, int value)
{
    if (env.initialised)
        return ZOR_ERR_INVALID_STATE;
    if (id != ZOR_V3_SESSION_TIMEOUT)
        return ZOR_ERR_INVALID_ATTRIBUTE;
    if (value < 0 || value > 86400)
        return ZOR_ERR_INVALID_NUMERIC_VALUE;
    env.session_timeout = value;
    return ZOR_OK;
}

int get_environment_numeric(const Environment &env, int id, int *value)
{
    if (id != ZOR_V3_SESSION_TIMEOUT)
        return ZOR_ERR_INVALID_ATTRIBUTE;
    *value = env.session_timeout;
    return ZOR_OK;
}

int set_socket_buffer(SecureSocket &soc, int id, std::string_view value)
{
    if (id == ZOR_USER_DATA) {
        // Replaced whole; the callbacks see the new copy from their next call.
        soc.user_data.assign(value);
        return ZOR_OK;
    }
    if (soc.state != SecureSocket::State::opened)
        return ZOR_ERR_INVALID_STATE;
    if (id == ZOR_KEYRING_LABEL && !value.empty()) {
        const KdbEntry *entry = soc.environment->database.find(value);
        if (!entry)
            return ZOR_ERR_KEY_LABEL_NOT_FOUND;
        if (!entry->key)
            return ZOR_ERR_NO_PRIVATE_KEY;
    }
    return set_connection_buffer(soc.settings, id, value);
}

int get_socket_buffer(SecureSocket &soc, int id, const char **value, int *length)
{
    switch (id) {
    case ZOR_USER_DATA:
        *value = soc.user_data.empty() ? nullptr : soc.user_data.data();
        *length = static_cast<int>(soc.user_data.size());
        return ZOR_OK;
    case ZOR_CONNECTION_CIPHER:
    case ZOR_CONNECTION_CIPHER_NAME:
    case ZOR_CONNECTION_PROTOCOL:
        if (soc.state != SecureSocket::State::connected)
            return ZOR_ERR_INVALID_STATE;
        return text_result(id == ZOR_CONNECTION_CIPHER        ? soc.cipher_code
                           : id == ZOR_CONNECTION_CIPHER_NAME ? soc.cipher_name
                                                              : soc.protocol,
                           value, length);
    default:
        std::string *field = connection_buffer(soc.settings, id);
        return field ? text_result(*field, value, length) : ZOR_ERR_INVALID_ATTRIBUTE;
    }
}

int set_socket_enum(SecureSocket &soc, int id, int value)
{
    if (soc.state != SecureSocket::State::opened)
        return ZOR_ERR_INVALID_STATE;
    return set_connection_enum(soc.settings, id, value);
}

int get_socket_enum(const SecureSocket &soc, int id, int *value) { return get_connection_enum(soc.settings, id, value); }

int set_socket_numeric(SecureSocket &soc, int id, int value)
{
    if (id != ZOR_FD)
        return ZOR_ERR_INVALID_ATTRIBUTE;
    if (soc.state != SecureSocket::State::opened)
        return ZOR_ERR_INVALID_STATE;
    if (value < 0)
        return ZOR_ERR_INVALID_NUMERIC_VALUE;
    soc.fd = value;
    return ZOR_OK;
}

int get_socket_numeric(const SecureSocket &soc, int id, int *value)
{
    if (id != ZOR_FD)
        return ZOR_ERR_INVALID_ATTRIBUTE;
    *value = soc.fd;
    return ZOR_OK;
}

} // namespace zor
