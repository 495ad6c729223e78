#!/bin/sh
# install_and_build.sh BUILD LIBDIR PREFIX WORK: installs the build tree
# BUILD under PREFIX (libraries in PREFIX/LIBDIR) and builds the consumers
# of this folder in WORK: WORK/shared_consumer_pc with pkg-config and a
# plain compiler call, WORK/cmake/ with find_package. CMAKE, CC and CXX
# name the tools, CFLAGS adds to every compile and link.
set -eu
build=$1 libdir=$2 prefix=$3 work=$4
here=$(cd "$(dirname "$0")" && pwd)
cmake=${CMAKE:-cmake} cc=${CC:-cc} cflags=${CFLAGS:-}

"$cmake" --install "$build" --prefix "$prefix" >/dev/null
# Nothing installed may look for libraries in the build tree.
for file in $(find "$prefix" -type f \( -perm -u+x -o -name '*.so*' \)); do
    if readelf -d "$file" 2>/dev/null | grep -E 'R(UN)?PATH' | grep -qF "$build"; then
        echo "$file searches the build tree" >&2
        exit 1
    fi
done

PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
export PKG_CONFIG_PATH
# shellcheck disable=SC2046,SC2086 # pkg-config's output is a list of words
"$cc" -std=c99 -pedantic -Wall -Wextra -Werror $cflags $(pkg-config --cflags zor8ldap) \
    "$here/shared_consumer.c" -o "$work/shared_consumer_pc" \
    $(pkg-config --libs zor8ldap) -Wl,-rpath,"$(pkg-config --variable=libdir zor8ldap)"
# The public headers are C++ too: a list of string literals is an
# attribute list there.
printf '%s\n' '#include <zor8ldap_api.h>' 'const char *attrs[] = {"cn", nullptr};' \
    'int f(LDAP *ld, LDAPMessage **r) { return zor_ldap_search_st(ld, "", 0, "(cn=*)", attrs, 0, nullptr, r); }' |
    "${CXX:-c++}" -std=c++11 -pedantic -Wall -Wextra -Werror -fsyntax-only $(pkg-config --cflags zor8ldap) -x c++ -

"$cmake" -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_C_FLAGS="$cflags -Wall -Wextra -Werror" >/dev/null
"$cmake" --build "$work/cmake" >/dev/null
