// exports.cpp - the eighteen entry points of libzor8ssl_64.so. Each checks
// its handle and pointers, then calls the toolkit's own function; nothing
// may throw across this boundary, so memory exhaustion becomes reason 4.
#include "attributes.h"
#include "environment.h"
#include "secure_socket.h"

#include <cstring>
#include <new>

#define ZOR_EXPORT extern "C" __attribute__((visibility("default")))

namespace zor {

Environment *as_environment(zor_handle h)
{
    auto *env = static_cast<Environment *>(h);
    return env && env->magic == kEnvironmentMagic ? env : nullptr;
}

SecureSocket *as_socket(zor_handle h)
{
    auto *soc = static_cast<SecureSocket *>(h);
    return soc && soc->magic == kSocketMagic ? soc : nullptr;
}

} // namespace zor

namespace {

using namespace zor;

template <typename F> int guarded(F &&body)
{
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return ZOR_ERR_INSUFFICIENT_STORAGE;
    } catch (...) {
        return ZOR_ERR_INTERNAL;
    }
}

// Both kinds of handle take attributes; the first word tells them apart.
uint32_t kind_of(zor_handle h)
{
    if (as_environment(h))
        return kEnvironmentMagic;
    return as_socket(h) ? kSocketMagic : 0;
}

std::string_view buffer_value(const void *value, int length)
{
    const char *text = static_cast<const char *>(value);
    return std::string_view(text, length == 0 ? std::strlen(text) : static_cast<size_t>(length));
}

} // namespace

ZOR_EXPORT int zor_environment_open(zor_handle *env)
{
    if (!env)
        return ZOR_ERR_INVALID_HANDLE;
    return guarded([&] {
        *env = new Environment;
        return ZOR_OK;
    });
}

ZOR_EXPORT int zor_environment_close(zor_handle *env)
{
    Environment *e = env ? as_environment(*env) : nullptr;
    if (!e)
        return ZOR_ERR_INVALID_HANDLE;
    *env = nullptr;
    e->release();
    return ZOR_OK;
}

ZOR_EXPORT int zor_environment_init(zor_handle env)
{
    Environment *e = as_environment(env);
    if (!e)
        return ZOR_ERR_INVALID_HANDLE;
    return guarded([&] { return initialise_environment(*e); });
}

ZOR_EXPORT int zor_secure_soc_open(zor_handle env, zor_handle *soc)
{
    Environment *e = as_environment(env);
    if (!e || !soc)
        return ZOR_ERR_INVALID_HANDLE;
    return guarded([&] {
        SecureSocket *s = nullptr;
        int rc = open_secure_socket(*e, s);
        if (rc == ZOR_OK)
            *soc = s;
        return rc;
    });
}

ZOR_EXPORT int zor_secure_soc_init(zor_handle soc)
{
    SecureSocket *s = as_socket(soc);
    if (!s)
        return ZOR_ERR_INVALID_HANDLE;
    return guarded([&] { return handshake(*s); });
}

ZOR_EXPORT int zor_secure_soc_close(zor_handle *soc)
{
    SecureSocket *s = soc ? as_socket(*soc) : nullptr;
    if (!s)
        return ZOR_ERR_INVALID_HANDLE;
    *soc = nullptr;
    close_secure_socket(s);
    return ZOR_OK;
}

ZOR_EXPORT int zor_secure_soc_read(zor_handle soc, char *buffer, int length, int *count)
{
    SecureSocket *s = as_socket(soc);
    if (!s)
        return ZOR_ERR_INVALID_HANDLE;
    if (!count)
        return ZOR_ERR_INVALID_LENGTH;
    return guarded([&] { return secure_read(*s, buffer, length, count); });
}

ZOR_EXPORT int zor_secure_soc_write(zor_handle soc, const char *buffer, int length, int *count)
{
    SecureSocket *s = as_socket(soc);
    if (!s)
        return ZOR_ERR_INVALID_HANDLE;
    if (!count)
        return ZOR_ERR_INVALID_LENGTH;
    return guarded([&] { return secure_write(*s, buffer, length, count); });
}

ZOR_EXPORT int zor_attribute_set_buffer(zor_handle h, int id, const void *value, int length)
{
    uint32_t kind = kind_of(h);
    if (!kind)
        return ZOR_ERR_INVALID_HANDLE;
    if (!value || length < 0)
        return ZOR_ERR_INVALID_LENGTH;
    return guarded([&] {
        std::string_view text = buffer_value(value, length);
        return kind == kEnvironmentMagic ? set_environment_buffer(*as_environment(h), id, text)
                                         : set_socket_buffer(*as_socket(h), id, text);
    });
}

ZOR_EXPORT int zor_attribute_get_buffer(zor_handle h, int id, const char **value, int *length)
{
    uint32_t kind = kind_of(h);
    if (!kind)
        return ZOR_ERR_INVALID_HANDLE;
    if (!value || !length)
        return ZOR_ERR_INVALID_LENGTH;
    return guarded([&] {
        return kind == kEnvironmentMagic ? get_environment_buffer(*as_environment(h), id, value, length)
                                         : get_socket_buffer(*as_socket(h), id, value, length);
    });
}

ZOR_EXPORT int zor_attribute_set_callback(zor_handle env, int id, const void *callbacks)
{
    Environment *e = as_environment(env);
    if (!e)
        return ZOR_ERR_INVALID_HANDLE;
    if (id != ZOR_IO_CALLBACK)
        return ZOR_ERR_INVALID_ATTRIBUTE;
    if (!callbacks)
        return ZOR_ERR_INVALID_SETTING;
    if (e->initialised)
        return ZOR_ERR_INVALID_STATE;
    // The record is copied: the caller's may be a temporary.
    std::memcpy(&e->callbacks, callbacks, sizeof e->callbacks);
    e->has_callbacks = true;
    return ZOR_OK;
}

ZOR_EXPORT int zor_attribute_get_cert_info(zor_handle soc, int id, zor_cert_element **elements, int *count)
{
    SecureSocket *s = as_socket(soc);
    if (!s)
        return ZOR_ERR_INVALID_HANDLE;
    if (id != ZOR_PEER_CERT_INFO)
        return ZOR_ERR_INVALID_ATTRIBUTE;
    if (!elements || !count)
        return ZOR_ERR_INVALID_LENGTH;
    return guarded([&] { return peer_certificate_info(*s, elements, count); });
}

ZOR_EXPORT int zor_attribute_set_numeric_value(zor_handle h, int id, int value)
{
    uint32_t kind = kind_of(h);
    if (!kind)
        return ZOR_ERR_INVALID_HANDLE;
    return kind == kEnvironmentMagic ? set_environment_numeric(*as_environment(h), id, value)
                                     : set_socket_numeric(*as_socket(h), id, value);
}

ZOR_EXPORT int zor_attribute_get_numeric_value(zor_handle h, int id, int *value)
{
    uint32_t kind = kind_of(h);
    if (!kind)
        return ZOR_ERR_INVALID_HANDLE;
    if (!value)
        return ZOR_ERR_INVALID_LENGTH;
    return kind == kEnvironmentMagic ? get_environment_numeric(*as_environment(h), id, value)
                                     : get_socket_numeric(*as_socket(h), id, value);
}

ZOR_EXPORT int zor_attribute_set_enum(zor_handle h, int id, int value)
{
    uint32_t kind = kind_of(h);
    if (!kind)
        return ZOR_ERR_INVALID_HANDLE;
    return kind == kEnvironmentMagic ? set_environment_enum(*as_environment(h), id, value)
                                     : set_socket_enum(*as_socket(h), id, value);
}

ZOR_EXPORT int zor_attribute_get_enum(zor_handle h, int id, int *value)
{
    uint32_t kind = kind_of(h);
    if (!kind)
        return ZOR_ERR_INVALID_HANDLE;
    if (!value)
        return ZOR_ERR_INVALID_LENGTH;
    return kind == kEnvironmentMagic ? get_environment_enum(*as_environment(h), id, value)
                                     : get_socket_enum(*as_socket(h), id, value);
}

ZOR_EXPORT int zor_get_cert_by_label(zor_handle env, const char *label, void **cert)
{
    Environment *e = as_environment(env);
    if (!e)
        return ZOR_ERR_INVALID_HANDLE;
    if (!label || !cert)
        return ZOR_ERR_INVALID_LENGTH;
    if (!e->initialised)
        return ZOR_ERR_INVALID_STATE;
    return guarded([&] {
        auto it = e->pem_by_label.find(label);
        if (it == e->pem_by_label.end())
            return ZOR_ERR_KEY_LABEL_NOT_FOUND;
        *cert = const_cast<char *>(it->second.c_str());
        return ZOR_OK;
    });
}
