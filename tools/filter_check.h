// filter_check.h - the tools' check that a search filter is one complete
// item before anything is sent.
#ifndef ZLDAP_TOOLS_FILTER_CHECK_H
#define ZLDAP_TOOLS_FILTER_CHECK_H

#include <cstddef>
#include <string>

namespace tool {

// 0 when the filter is one item ("(cn=a)", "(&(a=1)(b=2))" or a bare
// "cn=a") with balanced parentheses and nothing after its end but blanks;
// otherwise the 1-based position of the problem, with *problem saying
// what is wrong there. The library's encoder reads only the first item
// and would silently drop the rest of such a text.
size_t filter_problem(const std::string &filter, std::string *problem);

} // namespace tool

#endif
