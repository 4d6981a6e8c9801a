# SPDX-License-Identifier: Apache-2.0
# What `make install` puts where: the one place that says so.
#
# The prefix is /usr unless another one is chosen: slapd looks for modules there, and
# systemd for units. Nothing is written to /etc or /var: what an administrator has
# changed is never overwritten, and what the agent has made never removed.

if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX "/usr" CACHE PATH "Where make install puts things" FORCE)
endif()
include(GNUInstallDirs)
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(made "${PROJECT_BINARY_DIR}/install")
set(shared "${CMAKE_INSTALL_DATADIR}/zanthedx")

# The module, where Debian's slapd has its own, and what lets every spelling of
# moduleload find it.
set(modules "lib/ldap")
set(moduledir "${CMAKE_INSTALL_PREFIX}/${modules}")
foreach(spelling libback_zanthedx.la libback_zanthedx.so.0.la)
  configure_file(backend/libback_zanthedx.la.in "${made}/${spelling}" @ONLY)
  install(FILES "${made}/${spelling}" DESTINATION ${modules})
endforeach()
file(CREATE_LINK libback_zanthedx.so.0 "${made}/libback_zanthedx.so" SYMBOLIC)
install(FILES "${made}/libback_zanthedx.so" DESTINATION ${modules})
install(TARGETS back_zanthedx LIBRARY DESTINATION ${modules})

# libvex, for the module and for programs of others.
configure_file(packaging/vex.pc.in "${made}/vex.pc" @ONLY)
install(TARGETS vex LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES "${made}/vex.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES vex/vex.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vex)

# The agent, and what systemd needs to run it.
configure_file(packaging/vexagent.service.in "${made}/vexagent.service" @ONLY)
configure_file(packaging/vexagent.socket.in "${made}/vexagent.socket" @ONLY)
install(TARGETS vexagent RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES "${made}/vexagent.service" "${made}/vexagent.socket" DESTINATION lib/systemd/system)
install(FILES packaging/sysusers.conf DESTINATION lib/sysusers.d RENAME zanthedx.conf)
install(FILES packaging/tmpfiles.conf DESTINATION lib/tmpfiles.d RENAME zanthedx.conf)

# What configurations name. Whoever changes the map changes a copy.
install(FILES examples/zanthedx.schema examples/rfc2307bis.schema examples/sudo.schema
              examples/mail.schema examples/rfc2307.map examples/applications.map DESTINATION ${shared})

# What people read. The folders are those of the source tree, so that links hold.
install(FILES README.md CHANGELOG.md CONTRIBUTING.md LICENSE SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR} PATTERN man EXCLUDE)
install(FILES docs/man/vexagent.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES docs/man/slapd-zanthedx.5 docs/man/zanthe.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
