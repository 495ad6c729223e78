// dn_scan.cpp - the two state machines of the DN parser. The type machine
// accepts a name (letters, digits, hyphens) or a numeric OID, optionally
// written with an "OID." prefix; the value machine accepts plain, quoted,
// escaped and number-sign values and stops at a separator.
#include "proto/dn.h"
#include "proto/dn_scan.h"

#include "base/trace.h"

#include <cctype>
#include <strings.h>

namespace zldap {
namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_hex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

enum class TypeState { B4Type, InOidDigit, InDigits, InIdent, AfterType };

// The type has ended before c; AFTERTYPE judges c itself. True when c is the
// equals sign; false with *error set for anything but a blank.
bool after_type(const char *p, TypeState *state, int *error)
{
    *state = TypeState::AfterType;
    if (dn_is_blank(*p))
        return false;
    if (*p == '=') {
        LDAP_TRACE(TRC_DN, "State tx AFTERTYPE -> TYPEDONE.\n");
        return true;
    }
    LDAP_TRACE(TRC_ANY, "Found bad type spec, bad char %c after type.\n", *p);
    LDAP_TRACE(TRC_DN, "State tx AFTERTYPE -> INVALID.\n");
    *error = kDnMalformed;
    return false;
}

enum class ValueState { Before, Quoted, AfterQuotes, Hex, HexSecond, Plain, Escape, EscapeHexSecond };

} // namespace

const char *scan_dn_type(const char *text, std::string_view *type, int *error)
{
    LDAP_TRACE(TRC_DN, "Looking for end of attribute type in %s, %p.\n", text, static_cast<const void *>(text));
    LDAP_TRACE(TRC_DN, "Start in state B4TYPE.\n");
    *error = 0;
    TypeState state = TypeState::B4Type;
    const char *start = text;
    const char *p = text;
    for (; *p; p++) {
        LDAP_TRACE(TRC_DN, " %p=%c ", static_cast<const void *>(p), *p);
        char c = *p;
        switch (state) {
        case TypeState::B4Type:
            if (dn_is_blank(c))
                break;
            start = p;
            if (strncasecmp(p, "oid.", 4) == 0) {
                LDAP_TRACE(TRC_DN, "\nRead in OID prefix.");
                LDAP_TRACE(TRC_DN, "\nState tx B4TYPE -> INOIDDIGIT.\n");
                p += 3;
                state = TypeState::InOidDigit;
            } else if (is_digit(c)) {
                LDAP_TRACE(TRC_DN, "\nState tx B4TYPE -> INDIGITS.\n");
                state = TypeState::InDigits;
            } else if (is_letter(c)) {
                LDAP_TRACE(TRC_DN, "\nState tx B4TYPE -> INIDENT.\n");
                state = TypeState::InIdent;
            } else {
                LDAP_TRACE(TRC_DN, "\nState tx B4TYPE -> INVALID.\n");
                *error = kDnMalformed;
            }
            break;
        case TypeState::InOidDigit:
            if (is_digit(c)) {
                LDAP_TRACE(TRC_DN, "State tx INOIDDIGIT -> INDIGITS.\n");
                state = TypeState::InDigits;
            } else {
                LDAP_TRACE(TRC_ANY, "Found bad type spec, bad oid %c not digit.\n", c);
                LDAP_TRACE(TRC_DN, "State tx INOIDDIGIT -> INVALID.\n");
                *error = kDnBadOid;
            }
            break;
        case TypeState::InDigits:
            if (c == '.') {
                LDAP_TRACE(TRC_DN, "State tx INDIGITS -> INOIDDIGIT.\n");
                state = TypeState::InOidDigit;
            } else if (c == '=') {
                LDAP_TRACE(TRC_DN, "State tx INDIGITS -> TYPEDONE.\n");
                *type = std::string_view(start, p - start);
                return p;
            } else if (!is_digit(c)) {
                LDAP_TRACE(TRC_DN, "State tx INDIGITS -> AFTERTYPE.\n");
                *type = std::string_view(start, p - start);
                if (after_type(p, &state, error))
                    return p;
            }
            break;
        case TypeState::InIdent:
            if (c == '=') {
                LDAP_TRACE(TRC_DN, "State tx INIDENT -> TYPEDONE.\n");
                *type = std::string_view(start, p - start);
                return p;
            }
            if (!is_letter(c) && !is_digit(c) && c != '-') {
                // The line names INDIGITS here too: log texts stay as they have always read.
                LDAP_TRACE(TRC_DN, "State tx INDIGITS -> AFTERTYPE.\n");
                *type = std::string_view(start, p - start);
                if (after_type(p, &state, error))
                    return p;
            }
            break;
        case TypeState::AfterType:
            if (after_type(p, &state, error))
                return p;
            break;
        default:
            LDAP_TRACE(TRC_ANY, "Undefined state!  Tx -> INVALID\n");
            *error = kDnUndefinedState;
            break;
        }
        if (*error)
            return p;
    }
    *error = kDnMalformed; // the text ended before the equals sign
    return p;
}

const char *scan_dn_value(const char *text, std::string_view *value, int *error)
{
    LDAP_TRACE(TRC_DN, "Looking for end of attribute in %s, %p.\n", text, static_cast<const void *>(text));
    LDAP_TRACE(TRC_DN, "Start in state B4Value.\n");
    *error = 0;
    *value = std::string_view();
    ValueState state = ValueState::Before;
    ValueState back = ValueState::Plain; // where an escape returns to
    // Offsets into text: the value's first and last characters, and the last
    // character an escape protects from the trimming of trailing blanks.
    long start = -1, last = -1, kept = -1;
    long i = 0;
    bool stopped = false;
    for (; text[i]; i++) {
        char c = text[i];
        switch (state) {
        case ValueState::Before:
            if (dn_is_blank(c))
                break;
            if (dn_is_special(c)) {
                *error = kDnUnescapedSpecial;
                break;
            }
            start = last = i;
            if (c == '"') {
                state = ValueState::Quoted;
            } else if (c == '#') {
                state = ValueState::Hex;
            } else if (c == '\\') {
                state = ValueState::Escape;
                back = ValueState::Plain;
            } else {
                state = ValueState::Plain;
            }
            break;
        case ValueState::Quoted:
            if (c == '\\') {
                state = ValueState::Escape;
                back = ValueState::Quoted;
            } else if (c == '"') {
                last = i;
                state = ValueState::AfterQuotes;
            }
            break;
        case ValueState::AfterQuotes:
            if (dn_is_separator(c))
                stopped = true;
            else if (!dn_is_blank(c))
                *error = kDnAfterQuote;
            break;
        case ValueState::Hex:
            if (is_hex(c)) {
                last = i;
                state = ValueState::HexSecond;
            } else if (dn_is_separator(c) || dn_is_blank(c)) {
                // A number sign alone stops at once; unescaping refuses it.
                if (last == start || dn_is_separator(c))
                    stopped = true;
                else
                    state = ValueState::AfterQuotes;
            } else {
                *error = kDnBadHexValue;
            }
            break;
        case ValueState::HexSecond:
            if (!is_hex(c)) {
                *error = kDnBadEscapeHex;
                break;
            }
            last = i;
            state = ValueState::Hex;
            break;
        case ValueState::Plain:
            if (c == '\\') {
                // The backslash belongs to the value even when the text ends after it.
                last = i;
                state = ValueState::Escape;
                back = ValueState::Plain;
            } else if (dn_is_separator(c)) {
                stopped = true;
            } else if (c == '"' || c == '<' || c == '=' || c == '>') {
                *error = kDnUnescapedSpecial;
            } else {
                last = i;
            }
            break;
        case ValueState::Escape:
            if (is_hex(c)) {
                state = ValueState::EscapeHexSecond;
            } else if (c == '\\' || c == '"' || c == '#' || c == ' ' || dn_is_special(c)) {
                state = back;
            } else {
                *error = kDnBadEscape;
                break;
            }
            last = kept = i;
            break;
        case ValueState::EscapeHexSecond:
            if (!is_hex(c)) {
                *error = kDnBadEscapeHex;
                break;
            }
            last = kept = i;
            state = back;
            break;
        }
        if (stopped || *error)
            break;
    }
    if (*error == 0 && start < 0)
        *error = kDnEmptyValue;
    if (*error)
        return text + i;
    while (last > kept && last > start && dn_is_blank(text[last]))
        last--;
    *value = std::string_view(text + start, last - start + 1);
    return text + i;
}

} // namespace zldap
