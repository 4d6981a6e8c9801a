# SPDX-License-Identifier: Apache-2.0
# Everything from outside, as targets whose headers count as system headers.

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(GTest REQUIRED)
find_package(spdlog REQUIRED)
find_package(Boost 1.74 REQUIRED)
pkg_check_modules(LDB REQUIRED IMPORTED_TARGET ldb talloc tevent)
pkg_check_modules(LDAP REQUIRED IMPORTED_TARGET ldap lber)
pkg_check_modules(KRB5 REQUIRED IMPORTED_TARGET krb5)
pkg_check_modules(GNUTLS REQUIRED IMPORTED_TARGET gnutls)
find_library(CRYPT_LIBRARY crypt REQUIRED)
find_program(FLATC flatc REQUIRED)

# slapd's own headers. They fit one version of slapd only: refuse any other.
execute_process(COMMAND dpkg-query -W -f "\${Version}" slapd
                OUTPUT_VARIABLE SLAPD_VERSION COMMAND_ERROR_IS_FATAL ANY)
if(NOT EXISTS "${SLAPD_HEADERS}/version")
  message(FATAL_ERROR "no slapd headers in ${SLAPD_HEADERS}: run tools/slapd-headers ${SLAPD_HEADERS}")
endif()
file(STRINGS "${SLAPD_HEADERS}/version" SLAPD_HEADERS_VERSION)
if(NOT SLAPD_HEADERS_VERSION STREQUAL SLAPD_VERSION)
  message(FATAL_ERROR "the headers in ${SLAPD_HEADERS} are those of slapd ${SLAPD_HEADERS_VERSION}, "
                      "but slapd ${SLAPD_VERSION} is installed: run tools/slapd-headers ${SLAPD_HEADERS}")
endif()

add_library(slapd INTERFACE)
target_include_directories(slapd SYSTEM INTERFACE
  "${SLAPD_HEADERS}/include" "${SLAPD_HEADERS}/servers/slapd")
target_compile_definitions(slapd INTERFACE _FILE_OFFSET_BITS=64 _GNU_SOURCE)
target_link_libraries(slapd INTERFACE PkgConfig::LDAP)

# slapd exports liblutil's functions to the module; unit tests link them from here.
add_library(lutil STATIC IMPORTED)
set_target_properties(lutil PROPERTIES
  IMPORTED_LOCATION "${SLAPD_HEADERS}/lib/liblutil.a"
  INTERFACE_LINK_LIBRARIES PkgConfig::LDAP)

add_library(crypt INTERFACE)
target_link_libraries(crypt INTERFACE "${CRYPT_LIBRARY}")
