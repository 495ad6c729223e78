// filter.cpp - the search filter encoder. The whole string is translated
// to UTF-8 once, at the top, and every item is written untranslated so that
// nothing is translated twice.
#include "proto/filter.h"

#include "base/trace.h"
#include "ber/ber_internal.h"
#include "xlate/ldap_charset.h"

#include <cctype>
#include <cstring>
#include <string_view>

#define LDAP_MODULE "libraries/libldap/filter"

namespace {

constexpr ber_tag_t kAnd = 0xA0;
constexpr ber_tag_t kOr = 0xA1;
constexpr ber_tag_t kNot = 0xA2;
constexpr ber_tag_t kEquality = 0xA3;
constexpr ber_tag_t kSubstrings = 0xA4;
constexpr ber_tag_t kGreaterOrEqual = 0xA5;
constexpr ber_tag_t kLessOrEqual = 0xA6;
constexpr ber_tag_t kPresent = 0x87;
constexpr ber_tag_t kApproximate = 0xA8;
constexpr ber_tag_t kExtensible = 0xA9;

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// The ')' that closes an item opened `depth` levels before `p`, skipping
// escaped characters; NULL when the text ends first.
const char *closing_paren(const char *p, int depth)
{
    for (; *p; p++) {
        if (*p == '\\') {
            if (!*++p)
                return nullptr;
        } else if (*p == '(') {
            depth++;
        } else if (*p == ')' && --depth <= 0) {
            return p;
        }
    }
    return nullptr;
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

// Writes one piece of a substrings item, unescaped.
int put_piece(BerElement *ber, ber_tag_t tag, char *piece)
{
    ber_len_t len = 0;
    if (!*piece)
        return 0;
    if (compress_hex(piece, &len) != 0)
        return -1;
    return fber_printf_noxlate(ber, "to", tag, piece, static_cast<int>(len));
}

// U+203E, which some code pages produce for '~', back to '~' in the text
// before the first '<', '=' or '>', so that "~=" survives translation.
void restore_tilde(char *text, ber_len_t len)
{
    char *out = text;
    const char *end = text + len;
    const char *in = text;
    bool before_operator = true;
    while (in < end) {
        if (*in == '<' || *in == '=' || *in == '>')
            before_operator = false;
        if (before_operator && end - in >= 3 && static_cast<unsigned char>(in[0]) == 0xE2 &&
            static_cast<unsigned char>(in[1]) == 0x80 && static_cast<unsigned char>(in[2]) == 0xBE) {
            *out++ = '~';
            in += 3;
        } else {
            *out++ = *in++;
        }
    }
    *out = '\0';
}

// A copy of the item, in one buffer owned by the caller's scope.
zldap::MemBuffer copy_of(std::string_view text)
{
    return zldap::MemBuffer(zldap::mem_strndup(text.empty() ? "" : text.data(), text.size()));
}

// A copy of one simple item to take apart: on the stack when it is short,
// as nearly all are, on the heap otherwise. Items that nest keep to
// copy_of, so that deep nesting does not grow the stack by a buffer per
// level. get() is NULL when the heap copy fails.
class ItemCopy {
public:
    explicit ItemCopy(std::string_view text)
    {
        if (text.size() >= sizeof inline_) {
            heap_ = copy_of(text);
            text_ = heap_.get();
            return;
        }
        if (!text.empty())
            std::memcpy(inline_, text.data(), text.size());
        inline_[text.size()] = '\0';
        text_ = inline_;
    }
    ItemCopy(const ItemCopy &) = delete;
    ItemCopy &operator=(const ItemCopy &) = delete;
    char *get() const { return text_; }

private:
    char inline_[128];
    zldap::MemBuffer heap_;
    char *text_;
};

} // namespace

int compress_hex(char *s, ber_len_t *len)
{
    LDAP_TRACE(TRC_API, "into compress_hex \"%s\"\n", s);
    if (!std::strchr(s, '\\')) {
        *len = std::strlen(s);
        LDAP_TRACE(TRC_API, "> nothing to do, len = %ld\n", static_cast<long>(*len));
        return 0;
    }
    char *out = s;
    for (const char *in = s; *in; in++) {
        if (*in != '\\') {
            *out++ = *in;
            continue;
        }
        int high = in[1] ? hex_digit(in[1]) : -1;
        int low = high >= 0 && in[2] ? hex_digit(in[2]) : -1;
        if (low < 0)
            return -1;
        *out++ = static_cast<char>((high << 4) | low);
        in += 2;
    }
    *len = static_cast<ber_len_t>(out - s);
    *out = '\0';
    LDAP_TRACE(TRC_API, "Compressed put_filter \"%s\"\n", s);
    return 0;
}

int put_filter(BerElement *ber, const char *filter, int nested)
{
    if (!ber || !filter)
        return -1;
    // The text is only read (each item is copied before it is taken apart),
    // so only a translation needs a buffer of its own.
    zldap::MemBuffer owner;
    const char *p = filter;
    if (nested == 0 && !(ber->ber_no_xlate && *ber->ber_no_xlate)) {
        char *text = const_cast<char *>(filter);
        ber_len_t len = std::strlen(text);
        if (xlate_local_to_utf8(&text, &len, 0) != 0)
            return -1;
        owner.reset(text);
        restore_tilde(text, len);
        p = text;
    }
    while (is_space(*p))
        p++;
    if (!*p)
        return -1;
    for (;;) {
        switch (*p) {
        case '\0':
            return 0;
        case ' ':
            p++;
            break;
        case ')':
            LDAP_TRACE(TRC_API, "put_filter: end\n");
            return -1;
        case '(': {
            p++;
            while (is_space(*p))
                p++;
            ber_tag_t tag = *p == '&' ? kAnd : *p == '|' ? kOr : *p == '!' ? kNot : 0;
            if (tag) {
                LDAP_TRACE(TRC_API, tag == kAnd ? "put_filter: AND\n" : tag == kOr ? "put_filter: OR\n"
                                                                                  : "put_filter: NOT\n");
                const char *close = closing_paren(p + 1, 1);
                if (!close || fber_printf_noxlate(ber, "t{", tag) != 0)
                    return -1;
                zldap::MemBuffer list = copy_of(std::string_view(p + 1, static_cast<size_t>(close - p - 1)));
                if (!list || put_filter_list(ber, list.get()) != 0 || fber_printf_noxlate(ber, "}") != 0)
                    return -1;
                p = close + 1;
            } else {
                LDAP_TRACE(TRC_API, "put_filter: simple\n");
                const char *close = closing_paren(p, 1);
                if (!close)
                    return -1;
                ItemCopy item(std::string_view(p, static_cast<size_t>(close - p)));
                if (!item.get() || put_simple_filter_in_place(ber, item.get()) != 0)
                    return -1;
                p = close + 1;
            }
            break;
        }
        default: {
            LDAP_TRACE(TRC_API, "put_filter: default\n");
            std::string_view rest(p);
            while (!rest.empty() && is_space(rest.back()))
                rest.remove_suffix(1);
            ItemCopy item(rest);
            return item.get() && put_simple_filter_in_place(ber, item.get()) == 0 ? 0 : -1;
        }
        }
    }
}

int put_filter_list(BerElement *ber, const char *text)
{
    LDAP_TRACE(TRC_API, "put_filter_list \"%s\"\n", text);
    const char *p = text;
    for (;;) {
        while (*p == ' ')
            p++;
        if (!*p)
            return 0;
        const char *close = closing_paren(p, 0);
        if (!close)
            return -1;
        zldap::MemBuffer item = copy_of(std::string_view(p, static_cast<size_t>(close - p + 1)));
        if (!item || put_filter(ber, item.get(), 1) != 0)
            return -1;
        p = close + 1;
    }
}

int put_simple_filter(BerElement *ber, const char *item)
{
    zldap::MemBuffer copy(zldap::mem_strdup(item));
    return copy ? put_simple_filter_in_place(ber, copy.get()) : -1;
}

int put_simple_filter_in_place(BerElement *ber, char *text)
{
    char *equals = std::strchr(text, '=');
    if (!equals)
        return -1;
    LDAP_TRACE(TRC_API, "put_simple_filter %s\n", text);
    *equals = '\0';
    char *value = equals + 1;
    while (is_space(*value))
        value++;
    size_t vlen = std::strlen(value);
    while (vlen > 0 && is_space(value[vlen - 1]) && !(vlen > 1 && value[vlen - 2] == '\\'))
        vlen--;
    value[vlen] = '\0';

    ber_tag_t tag = kEquality;
    char *op = equals > text ? equals - 1 : nullptr;
    if (op && (*op == '<' || *op == '>' || *op == '~' || *op == ':')) {
        char kind = *op;
        *op = '\0';
        if (kind == ':')
            return put_extensible_filter(ber, text, value);
        tag = kind == '<' ? kLessOrEqual : kind == '>' ? kGreaterOrEqual : kApproximate;
    } else if (std::strcmp(value, "*") == 0) {
        return fber_printf_noxlate(ber, "ts", kPresent, text) == 0 ? 0 : -1;
    } else if (std::strchr(value, '*')) {
        return put_substring_filter(ber, text, value);
    }
    ber_len_t len = 0;
    if (compress_hex(value, &len) != 0)
        return -1;
    return fber_printf_noxlate(ber, "t{so}", tag, text, value, static_cast<int>(len)) == 0 ? 0 : -1;
}

int put_substring_filter(BerElement *ber, const char *attr, char *value)
{
    LDAP_TRACE(TRC_API, "put_substring_filter \"%s=%s\"\n", attr, value);
    if (fber_printf_noxlate(ber, "t{s{", kSubstrings, attr) != 0)
        return -1;
    // Split before unescaping, so that an escaped star stays a value byte.
    char *star = std::strchr(value, '*');
    *star = '\0';
    if (put_piece(ber, 0x80, value) != 0)
        return -1;
    char *piece = star + 1;
    for (char *next; (next = std::strchr(piece, '*')); piece = next + 1) {
        *next = '\0';
        if (put_piece(ber, 0x81, piece) != 0)
            return -1;
    }
    if (put_piece(ber, 0x82, piece) != 0)
        return -1;
    return fber_printf_noxlate(ber, "}}") == 0 ? 0 : -1;
}

int put_extensible_filter(BerElement *ber, const char *left, const char *value)
{
    LDAP_TRACE(TRC_API, "put_extensible_filter \"%s=%s\"\n", left, value);
    std::string_view l(left);
    size_t colon = l.find(':');
    // No colon before the operator's own is no extensible item. A colon
    // right in front of it, as in (cn::=x), leaves an empty rule: an item
    // without one, the only way to write it since (cn:=x) is refused.
    if (colon == std::string_view::npos)
        return -1;
    std::string_view attr = l.substr(0, colon);
    std::string_view rest = l.substr(colon + 1);
    if (!rest.empty() && rest.front() == ':')
        return -1;
    bool dn = false;
    if (rest == "dn" || rest.substr(0, 3) == "dn:") {
        dn = true;
        rest = rest.size() > 2 ? rest.substr(3) : std::string_view();
        if (!rest.empty() && rest.front() == ':')
            return -1;
    }
    zldap::MemBuffer rule = copy_of(rest);
    zldap::MemBuffer type = copy_of(attr);
    if (!rule || !type || fber_printf_noxlate(ber, "t{", kExtensible) != 0 ||
        (!rest.empty() && fber_printf_noxlate(ber, "ts", static_cast<ber_tag_t>(0x81), rule.get()) != 0) ||
        (!attr.empty() && fber_printf_noxlate(ber, "ts", static_cast<ber_tag_t>(0x82), type.get()) != 0) ||
        fber_printf_noxlate(ber, "to", static_cast<ber_tag_t>(0x83), value, static_cast<int>(std::strlen(value))) != 0 ||
        fber_printf_noxlate(ber, "tb}", static_cast<ber_tag_t>(0x84), dn ? 1 : 0) != 0)
        return -1;
    return 0;
}
