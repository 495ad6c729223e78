// ber_test_support.h - helpers for the BER codec's tests and fuzz target:
// byte strings written in hex, elements that own exactly their data (so
// that AddressSanitizer sees any read past ber_end), and a driver that
// decodes any format item by item into outputs it releases itself.
// Header only and free of GoogleTest, so the fuzz target can use it.
#ifndef ZLDAP_TEST_BER_TEST_SUPPORT_H
#define ZLDAP_TEST_BER_TEST_SUPPORT_H

#include "ber/lber.h"
#include "base/memory.h"

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zldap_test {

using Bytes = std::vector<unsigned char>;

// "30 84 00 00 00 03" -> bytes; blanks are ignored.
inline Bytes Hex(const std::string &text)
{
    Bytes out;
    std::string digits;
    for (char c : text)
        if (c != ' ')
            digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<unsigned char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return out;
}

inline std::string ToHex(const Bytes &bytes)
{
    std::string out;
    char octet[4];
    for (unsigned char b : bytes) {
        std::snprintf(octet, sizeof octet, out.empty() ? "%02X" : " %02X", b);
        out += octet;
    }
    return out;
}

inline Bytes Concat(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct BerFree {
    void operator()(BerElement *ber) const { fber_free(ber); }
};
using BerPtr = std::unique_ptr<BerElement, BerFree>;

// What an element has encoded so far.
inline Bytes Written(const BerElement *ber) { return Bytes(ber->ber_buf, ber->ber_ptr); }

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

// Copies of the values a walk decoded, released on destruction.
struct ScanOutputs {
    std::vector<std::string> strings;            // a, s, o and O
    std::vector<std::vector<std::string>> sets;  // the members of v and V, one entry per item
    std::vector<long> numbers;                   // b, e, i, t, T, l and B bit counts
};

namespace detail {

inline void FreeStrings(char **values)
{
    for (char **p = values; p && *p; p++)
        zldap::mem_free(*p);
    zldap::mem_free(values);
}

} // namespace detail

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
        char c = fmt[i];
        std::string item(1, c);
        ber_tag_t tag = rc; // what items that read nothing hand back
        switch (c) {
        case 'a': {
            char *s = nullptr;
            tag = fber_scanf(ber, "a", &s);
            if (s)
                out.strings.emplace_back(s);
            zldap::mem_free(s);
            break;
        }
        case 's': {
            char buf[256];
            ber_len_t size = sizeof buf;
            tag = fber_scanf(ber, "s", buf, &size);
            if (tag != LBER_DEFAULT)
                out.strings.emplace_back(buf, size);
            break;
        }
        case 'o': {
            struct berval bv = {0, nullptr};
            tag = fber_scanf(ber, "o", &bv);
            if (bv.bv_val)
                out.strings.emplace_back(bv.bv_val, bv.bv_len);
            zldap::mem_free(bv.bv_val);
            break;
        }
        case 'O': {
            struct berval *bv = nullptr;
            tag = fber_scanf(ber, "O", &bv);
            if (bv)
                out.strings.emplace_back(bv->bv_val, bv->bv_len);
            ber_bvfree(bv);
            break;
        }
        case 'b':
        case 'e':
        case 'i': {
            int n = 0;
            tag = fber_scanf(ber, item.c_str(), &n);
            out.numbers.push_back(n);
            break;
        }
        case 'B': {
            char *bits = nullptr;
            ber_len_t count = 0;
            tag = fber_scanf(ber, "B", &bits, &count);
            out.numbers.push_back(static_cast<long>(count));
            zldap::mem_free(bits);
            break;
        }
        case 't':
        case 'T': {
            uint32_t t = 0;
            tag = fber_scanf(ber, item.c_str(), &t);
            out.numbers.push_back(t);
            break;
        }
        case 'l': {
            ber_len_t len = 0;
            tag = fber_scanf(ber, "l", &len);
            out.numbers.push_back(static_cast<long>(len));
            break;
        }
        case 'v': {
            char **values = nullptr;
            tag = fber_scanf(ber, "v", &values);
            if (tag != LBER_DEFAULT && !values)
                tag = rc;
            std::vector<std::string> set;
            for (char **p = values; p && *p; p++)
                set.emplace_back(*p);
            out.sets.push_back(set);
            detail::FreeStrings(values);
            break;
        }
        case 'V': {
            struct berval **values = nullptr;
            tag = fber_scanf(ber, "V", &values);
            if (tag != LBER_DEFAULT && !values)
                tag = rc;
            std::vector<std::string> set;
            for (struct berval **p = values; p && *p; p++)
                set.emplace_back((*p)->bv_val, (*p)->bv_len);
            out.sets.push_back(set);
            ber_bvecfree(values);
            break;
        }
        case '{':
        case '[':
            if (i + 1 < fmt.size() && (fmt[i + 1] == 'v' || fmt[i + 1] == 'V'))
                break; // the set item reads this header itself
            tag = fber_scanf(ber, item.c_str());
            break;
        case '}':
        case ']':
            break;
        case 'n':
        case 'x':
            tag = fber_scanf(ber, item.c_str());
            break;
        default:
            return LBER_DEFAULT;
        }
        rc = tag;
    }
    return rc;
}


// The contents of an LDAPMessage, as the framing reader leaves them: the
// outer SEQUENCE header stripped. Empty when the header cannot be read.
inline Bytes Contents(const Bytes &message)
{
    BerPtr ber = ExactReader(message);
    ber_len_t len = 0;
    if (!ber || fber_get_tag(ber.get(), &len) == LBER_DEFAULT)
        return {};
    return Bytes(ber->ber_ptr, ber->ber_end);
}

// A valid LDAPMessage and the format that reads its contents completely.
struct SampleMessage {
    std::string name;
    Bytes bytes;
    std::string contents_format;
};

inline Bytes Encode(const std::function<int(BerElement *)> &write)
{
    BerPtr ber(fber_alloc());
    if (!ber || write(ber.get()) != 0)
        return {};
    return Written(ber.get());
}

// Messages of the kinds a client sends and receives.
inline std::vector<SampleMessage> SampleMessages()
{
    static char cn[] = "cn", mail[] = "mail";
    static char v1[] = "Babs Jensen", v2[] = "babs@example.com", top[] = "top", person[] = "person";
    static char referral[] = "ldap://other.example.com/dc=example,dc=com";
    static char *attrs[] = {cn, mail, nullptr};
    static char *cns[] = {v1, nullptr};
    static char *mails[] = {v2, nullptr};
    static char *classes[] = {top, person, nullptr};
    static char *referrals[] = {referral, referral, nullptr};
    static std::string photo_bytes(9000, '\x5A');
    static struct berval photo = {photo_bytes.size(), photo_bytes.data()};
    static struct berval *photos[] = {&photo, nullptr};
    static struct berval creds = {5, const_cast<char *>("token")};
    static struct berval bv_true = {4, const_cast<char *>("TRUE")};

    std::vector<SampleMessage> samples;
    samples.push_back({"search_request", Encode([](BerElement *ber) {
                           return fber_printf(ber, "{it{seeiib", 7, ber_tag_t{0x63}, "dc=example,dc=com", 2, 0,
                                              100, 30, 0) ||
                                  fber_printf(ber, "t{ss}", ber_tag_t{0xA3}, "cn", "Babs Jensen") ||
                                  fber_printf(ber, "{v}}}", attrs);
                       }),
                       "i{aeeiib{aa}{v}}"});
    samples.push_back({"search_entry", Encode([](BerElement *ber) {
                           return fber_printf(ber, "{it{s{", 7, ber_tag_t{0x64}, "cn=Babs,dc=example,dc=com") ||
                                  fber_printf(ber, "{s[v]}", "cn", cns) ||
                                  fber_printf(ber, "{s[v]}", "mail", mails) ||
                                  fber_printf(ber, "{s[v]}", "objectClass", classes) ||
                                  fber_printf(ber, "{s[V]}", "jpegPhoto", photos) || fber_printf(ber, "}}}");
                       }),
                       "i{a{{a[v]}{a[v]}{a[v]}{a[V]}}}"});
    samples.push_back({"search_done", Encode([](BerElement *ber) {
                           return fber_printf(ber, "{it{ess}}", 7, ber_tag_t{0x65}, 32, "dc=example,dc=com",
                                              "no such object");
                       }),
                       "i{eaa}"});
    samples.push_back({"search_reference", Encode([](BerElement *ber) {
                           return fber_printf(ber, "{it{v}}", 7, ber_tag_t{0x73}, referrals);
                       }),
                       "i{v}"});
    samples.push_back({"bind_response", Encode([](BerElement *ber) {
                           return fber_printf(ber, "{it{essto}}", 1, ber_tag_t{0x61}, 14, "", "continue",
                                              ber_tag_t{0x87}, creds.bv_val, static_cast<int>(creds.bv_len));
                       }),
                       "i{eaao}"});
    samples.push_back({"extended_response", Encode([](BerElement *ber) {
                           return fber_printf(ber, "{it{essts}", 3, ber_tag_t{0x78}, 0, "", "",
                                              ber_tag_t{0x8A}, "1.3.6.1.4.1.1466.20037") ||
                                  fber_printf(ber, "t{{sbo}}}", ber_tag_t{0xA0}, "1.2.840.113556.1.4.319", 1,
                                              bv_true.bv_val, static_cast<int>(bv_true.bv_len));
                       }),
                       "i{eaaa}{{abo}}"});
    samples.push_back({"modify_request", Encode([](BerElement *ber) {
                           return fber_printf(ber, "{it{s{", 9, ber_tag_t{0x66}, "cn=Babs,dc=example,dc=com") ||
                                  fber_printf(ber, "{e{s[v]}}", 2, "objectClass", classes) ||
                                  fber_printf(ber, "{e{s[v]}}", 0, "mail", mails) || fber_printf(ber, "}}}");
                       }),
                       "i{a{{e{a[v]}}{e{a[v]}}}}"});
    samples.push_back({"delete_request", Encode([](BerElement *ber) {
                           return fber_printf(ber, "{its}", 11, ber_tag_t{0x4A}, "cn=Babs,dc=example,dc=com");
                       }),
                       "ia"});
    samples.push_back({"unbind_request", Encode([](BerElement *ber) {
                           return fber_printf(ber, "{itn}", 12, ber_tag_t{0x42});
                       }),
                       "in"});
    return samples;
}

} // namespace zldap_test

#endif
