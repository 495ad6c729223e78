# zor8ldapConfig.cmake - find_package(zor8ldap) gives two targets:
# zor8ldap::zor8ldap, the shared object with the exported zor_ family
# (zor8ldap.h), and zor8ldap::static, the static library with the whole
# published API (zor8ldap_api.h), which brings what its objects need: the
# C++ runtime, threads and the dynamic loader.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include(${CMAKE_CURRENT_LIST_DIR}/zor8ldapTargets.cmake)
