// cxx_runtime.cpp - the C++ runtime pieces the shared object needs. The
// shared object links no C++ runtime library (see the top CMakeLists.txt),
// so whatever the standard headers call out of line is defined here; the
// static library leaves these to the C++ runtime of the program it is
// linked into. The version script keeps them hidden.
#include <cstdlib>
#include <string_view>

namespace std {

// std::string_view::substr reports a start past the end through this. The
// library checks every position before it cuts a view, so reaching it is a
// defect; as in a C++ runtime built without exceptions, it aborts.
void __throw_out_of_range_fmt(const char *, ...)
{
    abort();
}

} // namespace std
