// filter_check.cpp - the structural check of a search filter: parentheses
// balanced and nothing after the first complete item. A backslash takes
// the character after it out of the count, as the old escape form "\("
// does; the hexadecimal form "\28" has no parenthesis to skip.
#include "filter_check.h"

#include <vector>

namespace tool {

namespace {

size_t fail(size_t index, const char *what, std::string *problem)
{
    *problem = what;
    return index + 1;
}

} // namespace

size_t filter_problem(const std::string &filter, std::string *problem)
{
    size_t start = filter.find_first_not_of(" \t");
    if (start == std::string::npos)
        return fail(filter.size(), "the filter is empty", problem);
    bool bare = filter[start] != '(';
    std::vector<size_t> open; // where the parentheses not yet closed are
    size_t end = std::string::npos;
    for (size_t i = start; i < filter.size() && end == std::string::npos; i++) {
        char c = filter[i];
        if (c == '\\') {
            i++;
        } else if (c == '(' && bare) {
            return fail(i, "a parenthesis inside an item without parentheses (write it as \\28)", problem);
        } else if (c == '(') {
            open.push_back(i);
        } else if (c == ')' && open.empty()) {
            return fail(i, "a closing parenthesis without an opening one", problem);
        } else if (c == ')') {
            if (open.back() + 1 == i)
                return fail(i, "an empty item \"()\"", problem);
            open.pop_back();
            if (open.empty())
                end = i + 1;
        }
    }
    if (!open.empty())
        return fail(open.back(), "this parenthesis is not closed", problem);
    size_t rest = end == std::string::npos ? std::string::npos : filter.find_first_not_of(" \t", end);
    if (rest != std::string::npos)
        return fail(rest, "text after the end of the filter (join items with (&...) or (|...))", problem);
    return 0;
}

} // namespace tool
