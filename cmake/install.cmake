# install.cmake - what `cmake --install` puts where, in the GNU directory
# layout: the shared object and the static library with the public headers,
# a pkg-config file and a CMake package for the programs that use them, the
# tools, and the shared objects of the toolkit and the plug-ins next to the
# library, which loads them from its own directory.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# ZLDAP_INSTALLED_TARGETS: every target installed, which an install needs built.
set(ZLDAP_INSTALLED_TARGETS zor8ldap_64 zldap_static)
install(TARGETS zor8ldap_64 zldap_static EXPORT zor8ldapTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
file(GLOB ZLDAP_PUBLIC_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/*.h)
install(FILES ${ZLDAP_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Installed programs find the library from where they are, never in the
# build tree: their run-time search path is relative to their own directory.
file(RELATIVE_PATH ZLDAP_BIN_TO_LIB ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
foreach(dir tools toolkit plugins)
  if(NOT EXISTS ${PROJECT_SOURCE_DIR}/${dir}/CMakeLists.txt)
    continue()
  endif()
  # Static libraries in these folders are parts of their programs; test
  # programs live in subfolders, which this does not look at.
  get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target ${targets})
    get_target_property(type ${target} TYPE)
    if(type MATCHES "^(SHARED|MODULE)_LIBRARY$")
      list(APPEND ZLDAP_INSTALLED_TARGETS ${target})
      install(TARGETS ${target} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
    elseif(type STREQUAL "EXECUTABLE")
      list(APPEND ZLDAP_INSTALLED_TARGETS ${target})
      set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${ZLDAP_BIN_TO_LIB}")
      install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    endif()
  endforeach()
endforeach()

# pkg-config: the shared object. Its paths are relative to the .pc file, so
# an installed tree may be moved or installed under another prefix.
file(RELATIVE_PATH ZLDAP_PC_TO_INCLUDE ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(${PROJECT_SOURCE_DIR}/cmake/zor8ldap.pc.in ${PROJECT_BINARY_DIR}/zor8ldap.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zor8ldap.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# find_package(zor8ldap): zor8ldap::zor8ldap and zor8ldap::static.
set(ZLDAP_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zor8ldap)
install(EXPORT zor8ldapTargets NAMESPACE zor8ldap:: DESTINATION ${ZLDAP_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zor8ldapConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_SOURCE_DIR}/cmake/zor8ldapConfig.cmake ${PROJECT_BINARY_DIR}/zor8ldapConfigVersion.cmake
  DESTINATION ${ZLDAP_PACKAGE_DIR})

# The tools' manual pages (zldapadd.1 points at zldapmodify.1).
file(GLOB ZLDAP_MAN_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*.1)
install(FILES ${ZLDAP_MAN_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
