# `cmake --install BUILD --prefix P` puts in place:
#
#   P/lib/libKel.so, libPlatformTypes.so, libPond.so, libMpls.so  (and their soname links)
#   P/include/mpls/{Mpls,Kel,Pond,types}/...                      the public headers
#   P/bin/mplsctl, P/bin/mplsd
#   P/lib/cmake/Mpls/                   find_package(Mpls) -> Mpls::Mpls, Mpls::Pond, ...
#   P/lib/pkgconfig/mpls.pc             pkg-config --cflags --libs mpls
#
# The libraries and their headers are installed by mpls_install_library() next to their
# targets; this file adds the tool, the CMake package and the pkg-config file.
include(CMakePackageConfigHelpers)

# mplsctl finds the libraries relative to itself, wherever the prefix is moved.
file(RELATIVE_PATH _mpls_bin_to_lib
  ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(mplsctl mplsd PROPERTIES INSTALL_RPATH "$ORIGIN/${_mpls_bin_to_lib}")
install(TARGETS mplsctl mplsd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)

install(EXPORT MplsTargets
  NAMESPACE Mpls::
  FILE MplsTargets.cmake
  DESTINATION ${MPLS_INSTALL_CMAKEDIR}
  COMPONENT development)

configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/MplsConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/MplsConfig.cmake
  INSTALL_DESTINATION ${MPLS_INSTALL_CMAKEDIR})
# Until 1.0 a minor version may change the interfaces.
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/MplsConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/MplsConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/MplsConfigVersion.cmake
  DESTINATION ${MPLS_INSTALL_CMAKEDIR}
  COMPONENT development)

# mpls.pc locates the prefix from its own directory, so that it stays right whatever
# prefix `cmake --install --prefix` is given.
file(RELATIVE_PATH MPLS_PC_TO_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" MPLS_PC_TO_PREFIX "${MPLS_PC_TO_PREFIX}")
set(MPLS_PC_LIBS_EXTRA "")
if(MPLS_SANITIZE)
  list(JOIN MPLS_SANITIZER_FLAGS " " MPLS_PC_LIBS_EXTRA)
  set(MPLS_PC_LIBS_EXTRA " ${MPLS_PC_LIBS_EXTRA}")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/mpls.pc.in ${CMAKE_CURRENT_BINARY_DIR}/mpls.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/mpls.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)
