// ber_test_support.h - helpers for the BER codec's tests and fuzz targets:
// byte strings written in hex or built element by element, elements that
// own exactly their data (so that AddressSanitizer sees any read past
// ber_end), a driver that decodes any format item by item into outputs it
// releases itself, and sample messages of the kinds a client exchanges.
// Header only and free of GoogleTest, so the fuzz targets can use it.
#ifndef ZLDAP_TEST_BER_TEST_SUPPORT_H
#define ZLDAP_TEST_BER_TEST_SUPPORT_H

#include "ber/lber.h"
#include "base/memory.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace zldap_test {

using Bytes = std::vector<unsigned char>;

// "30 84 00 00 00 03" -> bytes: pairs of hex digits, blanks between them.
inline Bytes Hex(const std::string &text)
{
    Bytes out;
    for (size_t i = 0; i + 1 < text.size(); i += text[i] == ' ' ? 1 : 2)
        if (text[i] != ' ')
            out.push_back(static_cast<unsigned char>(std::stoi(text.substr(i, 2), nullptr, 16)));
    return out;
}

inline std::string ToHex(const Bytes &bytes)
{
    std::string out;
    char octet[4];
    for (unsigned char b : bytes) {
        std::snprintf(octet, sizeof octet, " %02X", b);
        out += octet;
    }
    return out.empty() ? out : out.substr(1);
}

inline Bytes Text(const std::string &s) { return Bytes(s.begin(), s.end()); }

inline Bytes Join(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

inline Bytes Concat(const Bytes &a, const Bytes &b) { return Join({a, b}); }

// One element with a definite length: the short form up to 127, else 0x84.
inline Bytes Tlv(unsigned tag, const Bytes &contents)
{
    auto octet = [](size_t value) { return static_cast<unsigned char>(value); };
    size_t n = contents.size();
    Bytes header = n < 128 ? Bytes{octet(tag), octet(n)}
                           : Bytes{octet(tag), 0x84, octet(n >> 24), octet(n >> 16), octet(n >> 8), octet(n)};
    return Join({header, contents});
}

// An INTEGER (or ENUMERATED, with tag 0x0A) in its shortest two's complement form.
inline Bytes Integer(int value, unsigned tag = 0x02)
{
    Bytes octets;
    long v = value;
    do {
        octets.insert(octets.begin(), static_cast<unsigned char>(v & 0xFF));
        v >>= 8;
    } while (!((v == 0 && !(octets.front() & 0x80)) || (v == -1 && (octets.front() & 0x80))));
    return Tlv(tag, octets);
}

inline Bytes Octets(const std::string &text, unsigned tag = 0x04) { return Tlv(tag, Text(text)); }

inline Bytes Seq(const std::vector<Bytes> &items, unsigned tag = 0x30)
{
    Bytes contents;
    for (const Bytes &item : items)
        contents.insert(contents.end(), item.begin(), item.end());
    return Tlv(tag, contents);
}

struct BerFree {
    void operator()(BerElement *ber) const { fber_free(ber); }
};
using BerPtr = std::unique_ptr<BerElement, BerFree>;

// What an element has encoded so far.
inline Bytes Written(const BerElement *ber) { return Bytes(ber->ber_buf, ber->ber_ptr); }

// The bytes the codec writes; empty when writing fails.
inline Bytes Encode(const std::function<int(BerElement *)> &write)
{
    BerPtr ber(fber_alloc());
    if (!ber || write(ber.get()) != 0)
        return {};
    return Written(ber.get());
}

// An element positioned for reading whose buffer is a heap block of
// exactly the data's size, like one framed from a socket. NULL on memory
// failure.
inline BerPtr ExactReader(const unsigned char *data, size_t len)
{
    BerPtr ber(fber_alloc_t(0));
    if (!ber || fber_write(ber.get(), reinterpret_cast<const char *>(data), len) < 0)
        return nullptr;
    fber_reset(ber.get(), 1);
    return ber;
}

inline BerPtr ExactReader(const Bytes &bytes) { return ExactReader(bytes.data(), bytes.size()); }

// Gives an element the owned string settings a handle's elements carry: a
// protocol version, and a no-translation flag unless no_xlate is NULL.
// False when memory runs out.
inline bool SetStringSettings(BerElement *ber, int32_t version, const uint32_t *no_xlate)
{
    ber->ber_version = static_cast<int32_t *>(zldap::mem_malloc(sizeof(int32_t)));
    ber->ber_no_xlate = no_xlate ? static_cast<uint32_t *>(zldap::mem_malloc(sizeof(uint32_t))) : nullptr;
    if (!ber->ber_version || (no_xlate && !ber->ber_no_xlate))
        return false;
    *ber->ber_version = version;
    if (no_xlate)
        *ber->ber_no_xlate = *no_xlate;
    return true;
}

// Copies of the values a walk decoded, released on destruction.
struct ScanOutputs {
    std::vector<std::string> strings;           // a, s, o, O and the octets of B
    std::vector<std::vector<std::string>> sets; // the members of v and V, one entry per item
    std::vector<long> numbers;                  // b, e, i, t, T, l and B bit counts read
};

// Decodes fmt one item per fber_scanf call (a `{` or `[` goes together
// with a `v` or `V` that follows it), copying what each item stored into
// out and releasing the codec's allocations at once. Returns the tag of the
// last item, or LBER_DEFAULT at the first failure. Values the codec
// stored before failing are released too, so a leak check after the walk
// sees only what the codec itself lost.
inline ber_tag_t ScanByItems(BerElement *ber, const std::string &fmt, ScanOutputs &out)
{
    ber_tag_t rc = 0;
    for (size_t i = 0; i < fmt.size() && rc != LBER_DEFAULT; i++) {
        const char item[2] = {fmt[i], '\0'};
        ber_tag_t tag = rc; // what items that read nothing hand back
        auto number = [&](auto value) {
            tag = fber_scanf(ber, item, &value);
            if (tag != LBER_DEFAULT)
                out.numbers.push_back(static_cast<long>(value));
        };
        // Copies a value the codec stored and releases it.
        auto keep = [&](char *bytes, size_t len) {
            if (bytes)
                out.strings.emplace_back(bytes, len);
            zldap::mem_free(bytes);
        };
        switch (item[0]) {
        case 'a': {
            char *s = nullptr;
            tag = fber_scanf(ber, item, &s);
            keep(s, s ? std::strlen(s) : 0);
            break;
        }
        case 's': {
            char buf[256];
            ber_len_t size = sizeof buf;
            tag = fber_scanf(ber, item, buf, &size);
            if (tag != LBER_DEFAULT)
                out.strings.emplace_back(buf, size);
            break;
        }
        case 'o': {
            struct berval bv = {0, nullptr};
            tag = fber_scanf(ber, item, &bv);
            keep(bv.bv_val, bv.bv_len);
            break;
        }
        case 'O': {
            struct berval *bv = nullptr;
            tag = fber_scanf(ber, item, &bv);
            if (bv)
                keep(bv->bv_val, bv->bv_len);
            zldap::mem_free(bv);
            break;
        }
        case 'B': {
            char *bits = nullptr;
            ber_len_t count = 0;
            tag = fber_scanf(ber, item, &bits, &count);
            if (tag != LBER_DEFAULT)
                out.numbers.push_back(static_cast<long>(count));
            keep(bits, (count + 7) / 8);
            break;
        }
        case 'b':
        case 'e':
        case 'i':
            number(int{0});
            break;
        case 't':
        case 'T':
            number(uint32_t{0});
            break;
        case 'l':
            number(ber_len_t{0});
            break;
        case 'v': {
            char **values = nullptr;
            tag = fber_scanf(ber, item, &values);
            std::vector<std::string> set;
            for (char **p = values; p && *p; zldap::mem_free(*p++))
                set.emplace_back(*p);
            zldap::mem_free(values);
            out.sets.push_back(set);
            tag = tag != LBER_DEFAULT && !values ? rc : tag; // an empty SET reads nothing
            break;
        }
        case 'V': {
            struct berval **values = nullptr;
            tag = fber_scanf(ber, item, &values);
            std::vector<std::string> set;
            for (struct berval **p = values; p && *p; p++)
                set.emplace_back((*p)->bv_val, (*p)->bv_len);
            ber_bvecfree(values);
            out.sets.push_back(set);
            tag = tag != LBER_DEFAULT && !values ? rc : tag;
            break;
        }
        case '{':
        case '[':
            if (i + 1 < fmt.size() && (fmt[i + 1] == 'v' || fmt[i + 1] == 'V'))
                break; // the set item reads this header itself
            tag = fber_scanf(ber, item);
            break;
        case '}':
        case ']':
            break;
        default: // n, x and characters the codec does not know
            tag = fber_scanf(ber, item);
            break;
        }
        rc = tag;
    }
    return rc;
}

// A valid LDAPMessage and the format that reads its contents completely.
struct SampleMessage {
    std::string name;
    Bytes bytes;
    std::string contents_format;
};

// Messages of the kinds a client sends and receives, written item by item
// with the codec itself.
inline std::vector<SampleMessage> SampleMessages()
{
    static char cn[] = "cn", mail[] = "mail", v1[] = "Babs Jensen", v2[] = "babs@example.com";
    static char top[] = "top", person[] = "person", referral[] = "ldap://other.example.com/dc=example,dc=com";
    static char *attrs[] = {cn, mail, nullptr}, *cns[] = {v1, nullptr}, *mails[] = {v2, nullptr};
    static char *classes[] = {top, person, nullptr}, *referrals[] = {referral, referral, nullptr};
    static std::string photo_bytes(9000, '\x5A');
    static struct berval photo = {photo_bytes.size(), photo_bytes.data()};
    static struct berval *photos[] = {&photo, nullptr};
    const char *entry = "cn=Babs,dc=example,dc=com";
    auto encode = [](const char *fmt, auto... args) {
        BerPtr ber(fber_alloc());
        return ber && fber_printf(ber.get(), fmt, args...) == 0 ? Written(ber.get()) : Bytes{};
    };
    using T = ber_tag_t;
    return {
        {"search_request", encode("{it{seeiibt{ss}{v}}}", 7, T{0x63}, "dc=example,dc=com", 2, 0, 100, 30, 0, T{0xA3},
                                  "cn", "Babs Jensen", attrs), "i{aeeiib{aa}{v}}"},
        {"search_entry", encode("{it{s{{s[v]}{s[v]}{s[v]}{s[V]}}}}", 7, T{0x64}, entry, "cn", cns, "mail", mails,
                                "objectClass", classes, "jpegPhoto", photos), "i{a{{a[v]}{a[v]}{a[v]}{a[V]}}}"},
        {"search_done", encode("{it{ess}}", 7, T{0x65}, 32, "dc=example,dc=com", "no such object"), "i{eaa}"},
        {"search_reference", encode("{it{v}}", 7, T{0x73}, referrals), "i{v}"},
        {"bind_response", encode("{it{essto}}", 1, T{0x61}, 14, "", "continue", T{0x87}, "token", 5), "i{eaao}"},
        {"extended_response", encode("{it{essts}t{{sbo}}}", 3, T{0x78}, 0, "", "", T{0x8A}, "1.3.6.1.4.1.1466.20037",
                                     T{0xA0}, "1.2.840.113556.1.4.319", 1, "TRUE", 4), "i{eaaa}{{abo}}"},
        {"modify_request", encode("{it{s{{e{s[v]}}{e{s[v]}}}}}", 9, T{0x66}, entry, 2, "objectClass", classes, 0,
                                  "mail", mails), "i{a{{e{a[v]}}{e{a[v]}}}}"},
        {"delete_request", encode("{its}", 11, T{0x4A}, entry), "ia"},
        {"unbind_request", encode("{itn}", 12, T{0x42}), "in"},
    };
}

} // namespace zldap_test

#endif
