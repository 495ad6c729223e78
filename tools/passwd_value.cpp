// passwd_value.cpp - BER of the password modify values: definite lengths,
// context tags 0x80 to 0x82 inside a SEQUENCE. The response is read with
// every length checked against the bytes there are.
#include "passwd_value.h"

namespace tool {

namespace {

std::string ber_length(size_t length)
{
    if (length < 0x80)
        return std::string(1, static_cast<char>(length));
    std::string bytes;
    for (; length > 0; length >>= 8)
        bytes.insert(bytes.begin(), static_cast<char>(length & 0xFF));
    return static_cast<char>(0x80 | bytes.size()) + bytes;
}

std::string element(unsigned char tag, const std::string &content)
{
    return static_cast<char>(tag) + ber_length(content.size()) + content;
}

// Reads a tag and a definite length at *at; the content follows.
bool read_header(const std::string &bytes, size_t *at, unsigned char *tag, size_t *length)
{
    if (bytes.size() - *at < 2)
        return false;
    *tag = static_cast<unsigned char>(bytes[(*at)++]);
    unsigned char first = static_cast<unsigned char>(bytes[(*at)++]);
    *length = first;
    if (first & 0x80) {
        size_t count = first & 0x7F;
        if (count == 0 || count > 4 || bytes.size() - *at < count)
            return false;
        *length = 0;
        for (size_t i = 0; i < count; i++)
            *length = (*length << 8) | static_cast<unsigned char>(bytes[(*at)++]);
    }
    return *length <= bytes.size() - *at;
}

} // namespace

std::string passwd_modify_request(const std::optional<std::string> &user, const std::optional<std::string> &old_password,
                                  const std::optional<std::string> &new_password)
{
    std::string content;
    unsigned char tag = 0x80;
    for (const auto *part : {&user, &old_password, &new_password}) {
        if (*part)
            content += element(tag, **part);
        tag++;
    }
    return element(0x30, content);
}

bool passwd_modify_generated(const std::string &value, std::optional<std::string> *generated)
{
    size_t at = 0, length = 0;
    unsigned char tag = 0;
    generated->reset();
    if (!read_header(value, &at, &tag, &length) || tag != 0x30 || at + length != value.size())
        return false;
    if (at == value.size())
        return true;
    if (!read_header(value, &at, &tag, &length) || tag != 0x80 || at + length != value.size())
        return false;
    *generated = value.substr(at, length);
    return true;
}

} // namespace tool
