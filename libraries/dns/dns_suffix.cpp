// dns_suffix.cpp - the DN filter: a server is kept when its naming suffix
// lies at or under the filter DN, compared component by component from
// the right, without regard to case or to blanks around components.
#include "dns/ldapdns.h"

#include <cstring>
#include <strings.h>

namespace zldap {
namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// The component of dn that ends just before *end (the text between the
// comma before it and *end), blanks around it left out; *end moves to
// that comma, or to NULL when the component was the first.
void previous_component(const char *dn, const char **end, const char **start, size_t *length)
{
    const char *stop = *end;
    const char *begin = stop;
    while (begin > dn && begin[-1] != ',')
        begin--;
    *end = begin > dn ? begin - 1 : nullptr;
    while (begin < stop && is_blank(*begin))
        begin++;
    while (stop > begin && is_blank(stop[-1]))
        stop--;
    *start = begin;
    *length = static_cast<size_t>(stop - begin);
}

} // namespace

bool dns_suffix_matches(const char *filter, const char *suffix)
{
    if (!filter || filter[std::strspn(filter, " \t")] == '\0')
        return true;
    if (!suffix)
        return false;
    const char *f_end = filter + std::strlen(filter);
    const char *x_end = suffix + std::strlen(suffix);
    while (f_end) {
        if (!x_end)
            return false; // the suffix lies above the filter
        const char *f, *x;
        size_t f_length, x_length;
        previous_component(filter, &f_end, &f, &f_length);
        previous_component(suffix, &x_end, &x, &x_length);
        if (f_length < 2 || x_length < 2 || f_length != x_length || strncasecmp(f, x, f_length) != 0)
            return false;
    }
    return true;
}

} // namespace zldap
