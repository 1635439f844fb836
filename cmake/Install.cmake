# Installation of the programs and their manual pages, and the .deb packages (cmake/Packaging.cmake).
# Included after src/ and tools/, so that every program target exists here; a program that is not
# part of the tree (yet) is left out of the installation and the package.
include(GNUInstallDirs)

# The daemon configures CAN interfaces, so it goes with the system programs; the client and the
# simulated module are user commands.
set(VARNOCH_INSTALLED_PROGRAMS "")
foreach(entry varnoch:SBINDIR varnoch-flash:BINDIR varnoch-module-sim:BINDIR)
  string(REPLACE ":" ";" entry "${entry}")
  list(GET entry 0 program)
  list(GET entry 1 dir)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_${dir}})
    list(APPEND VARNOCH_INSTALLED_PROGRAMS ${program})
  endif()
endforeach()

# Manual pages go in gzip-compressed, without a time stamp in the header (gzip -n), as Debian has them.
find_program(VARNOCH_GZIP gzip REQUIRED)
set(pages "")
foreach(entry varnoch:8 varnoch-flash:1 varnoch-module-sim:1)
  string(REPLACE ":" ";" entry "${entry}")
  list(GET entry 0 program)
  list(GET entry 1 section)
  if(NOT TARGET ${program})
    continue()
  endif()
  set(page ${CMAKE_BINARY_DIR}/man/${program}.${section})
  add_custom_command(OUTPUT ${page}.gz
    COMMAND ${CMAKE_COMMAND} -E copy ${PROJECT_SOURCE_DIR}/docs/man/${program}.${section} ${page}
    COMMAND ${VARNOCH_GZIP} -9nf ${page}
    DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/${program}.${section}
    COMMENT "Compressing the manual page ${program}(${section})"
    VERBATIM)
  list(APPEND pages ${page}.gz)
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
if(pages)
  add_custom_target(varnoch_man_pages ALL DEPENDS ${pages})
endif()

# The daemon as a system service: socket and service units (installed disabled), the service's system
# user, an example network set-up for can0. The service names the daemon where this installation puts
# it, which for a package is only known while installing.
if(TARGET varnoch)
  set(systemd ${PROJECT_SOURCE_DIR}/packaging/systemd)
  set(service ${CMAKE_BINARY_DIR}/systemd/varnoch.service)
  install(CODE "set(VARNOCH_DAEMON_PATH \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}/varnoch\")
                configure_file(\"${systemd}/varnoch.service.in\" \"${service}\" @ONLY)")
  install(FILES ${systemd}/varnoch.socket ${service} DESTINATION lib/systemd/system)
  install(FILES ${systemd}/varnoch.sysusers DESTINATION lib/sysusers.d RENAME varnoch.conf)
  install(FILES ${systemd}/80-can0.network DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
endif()

if(VARNOCH_INSTALLED_PROGRAMS)
  message(STATUS "Installed and packaged programs: ${VARNOCH_INSTALLED_PROGRAMS}")
else()
  message(STATUS "No program targets yet: nothing to install or package")
endif()

include(${CMAKE_CURRENT_LIST_DIR}/Packaging.cmake)
