# One way to declare every library and test target of the project.

set(MPLS_SOURCE_ROOT ${CMAKE_SOURCE_DIR})

# Where `cmake --install` puts things. Public headers go under one include root,
# include/mpls, laid out as in the source tree's two roots: "Mpls/MplsLfib.h" from the
# repository root, "Kel/Value.h", "Pond/MountGroup.h" and "types/Netbase/..." from platform/.
include(GNUInstallDirs)
set(MPLS_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/mpls)
set(MPLS_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Mpls)

# Flags shared by every target we compile. Assertion texts name source files relative to
# the source root ("Mpls/MplsLfib"), so __FILE__ is mapped to the relative path.
function(mpls_target_defaults target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra "-fmacro-prefix-map=${MPLS_SOURCE_ROOT}/="
    # Calls between functions of one shared library go direct, not through the PLT.
    -fno-semantic-interposition)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(${target} PRIVATE -Wno-gnu-zero-variadic-macro-arguments)
  endif()
  if(MPLS_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# Every public header of `target` must compile on its own: generate one translation unit
# per header and build them as an object library.
function(mpls_check_headers target)
  if(NOT MPLS_CHECK_HEADERS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "HEADERS" ${ARGN})
  set(sources)
  foreach(header ${ARG_HEADERS})
    file(RELATIVE_PATH rel ${MPLS_SOURCE_ROOT} ${CMAKE_CURRENT_SOURCE_DIR}/${header})
    string(MAKE_C_IDENTIFIER ${rel} ident)
    set(src ${CMAKE_CURRENT_BINARY_DIR}/checkheaders/${ident}.cpp)
    file(CONFIGURE OUTPUT ${src} CONTENT "#include \"${rel}\"\n")
    list(APPEND sources ${src})
  endforeach()
  add_library(${target}_checkheaders OBJECT EXCLUDE_FROM_ALL ${sources})
  target_link_libraries(${target}_checkheaders PRIVATE ${target})
  mpls_target_defaults(${target}_checkheaders)
  if(NOT TARGET checkheaders)
    add_custom_target(checkheaders ALL)
  endif()
  add_dependencies(checkheaders ${target}_checkheaders)
  # An object library only builds when something needs its objects.
  set_target_properties(${target}_checkheaders PROPERTIES EXCLUDE_FROM_ALL OFF)
endfunction()

# mpls_add_library(NAME [SHARED|STATIC] SOURCES ... HEADERS ... PUBLIC_DEPS ... PRIVATE_DEPS ...)
function(mpls_add_library name)
  cmake_parse_arguments(ARG "STATIC" "" "SOURCES;HEADERS;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  if(ARG_STATIC)
    add_library(${name} STATIC ${ARG_SOURCES} ${ARG_HEADERS})
  else()
    add_library(${name} SHARED ${ARG_SOURCES} ${ARG_HEADERS})
  endif()
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${MPLS_SOURCE_ROOT}>
    $<BUILD_INTERFACE:${MPLS_SOURCE_ROOT}/platform>
    $<INSTALL_INTERFACE:${MPLS_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  # The public headers are C++20: users of the library compile as C++20 too.
  target_compile_features(${name} PUBLIC cxx_std_20)
  if(NOT ARG_STATIC)
    set_target_properties(${name} PROPERTIES
      VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
      # Installed libraries find each other in their own directory.
      INSTALL_RPATH "$ORIGIN")
  endif()
  if(MPLS_SANITIZE)
    # A library built with the sanitizers needs their runtimes in the executable: an
    # installed, sanitized library hands the flags on to whatever links it. (In the build
    # tree every target gets them anyway.)
    foreach(flag ${MPLS_SANITIZER_FLAGS})
      target_link_options(${name} INTERFACE $<INSTALL_INTERFACE:${flag}>)
    endforeach()
  endif()
  mpls_target_defaults(${name})
  if(ARG_HEADERS)
    mpls_check_headers(${name} HEADERS ${ARG_HEADERS})
  endif()
endfunction()

# mpls_add_test(NAME SOURCES ... DEPS ...): one GoogleTest executable, its cases
# registered with CTest one by one.
function(mpls_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gmock GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${MPLS_SOURCE_ROOT}/tests)
  mpls_target_defaults(${name})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${ARG_TIMEOUT})
endfunction()

# mpls_install_library(NAME [DIR dir] [PRIVATE_INTERNAL]): installs the shared library NAME
# into the export set MplsTargets (imported by users as Mpls::NAME) and the headers of the
# calling directory, with their subdirectories, under include/mpls/DIR (DIR defaults to the
# directory's name). PRIVATE_INTERNAL leaves out the internal/ folder, for a library whose
# public headers do not include it.
function(mpls_install_library name)
  cmake_parse_arguments(ARG "PRIVATE_INTERNAL" "DIR" "" ${ARGN})
  set(exclude)
  if(ARG_PRIVATE_INTERNAL)
    set(exclude PATTERN "internal" EXCLUDE)
  endif()
  if(NOT ARG_DIR)
    get_filename_component(ARG_DIR ${CMAKE_CURRENT_SOURCE_DIR} NAME)
  endif()
  install(TARGETS ${name} EXPORT MplsTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
      NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  install(DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/
    DESTINATION ${MPLS_INSTALL_INCLUDEDIR}/${ARG_DIR}
    COMPONENT development
    FILES_MATCHING PATTERN "*.h" ${exclude})
endfunction()
