// ldif_base64.cpp - base64 (RFC 4648 alphabet, with padding) for LDIF values.
#include "ldif.h"

namespace ldif {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64_value(char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    return c == '+' ? 62 : c == '/' ? 63 : -1;
}

} // namespace

std::string base64_encode(const std::string &bytes)
{
    std::string out;
    size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        unsigned v = (static_cast<unsigned char>(bytes[i]) << 16) | (static_cast<unsigned char>(bytes[i + 1]) << 8) |
                     static_cast<unsigned char>(bytes[i + 2]);
        for (int s = 18; s >= 0; s -= 6)
            out += kAlphabet[(v >> s) & 63];
    }
    if (i < bytes.size()) {
        unsigned v = static_cast<unsigned char>(bytes[i]) << 16;
        bool two = i + 1 < bytes.size();
        if (two)
            v |= static_cast<unsigned char>(bytes[i + 1]) << 8;
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += two ? kAlphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

bool base64_decode(const std::string &text, std::string *bytes)
{
    bytes->clear();
    unsigned buffer = 0;
    int bits = 0;
    size_t symbols = 0, padding = 0;
    for (char c : text) {
        if (c == ' ')
            continue;
        if (c == '=') {
            padding++;
            continue;
        }
        int v = base64_value(c);
        if (v < 0 || padding > 0)
            return false;
        symbols++;
        buffer = (buffer << 6) | static_cast<unsigned>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes->push_back(static_cast<char>((buffer >> bits) & 0xFF));
        }
    }
    // One symbol past a group carries less than a byte; padding, when
    // given, completes the last group exactly.
    if (symbols % 4 == 1)
        return false;
    return padding == 0 || (padding <= 2 && (symbols + padding) % 4 == 0);
}

} // namespace ldif
