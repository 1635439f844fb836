# Installation of the programs and their manual pages, and the .deb packages (cmake/Packaging.cmake).
# Included after src/ and tools/, so that every program target exists here; a program that is not
# part of the tree (yet) is left out of the installation and the package.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Two packages: "programs" (the programs, their manual pages and the client library's runtime) and
# "dev" (what building against the client library takes). Whatever names no component is a program's.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME programs)

# The daemon configures CAN interfaces, so it goes with the system programs; the client, the
# simulated module and the trace are user commands.
set(VARNOCH_INSTALLED_PROGRAMS "")
foreach(entry varnoch:SBINDIR varnoch-flash:BINDIR varnoch-module-sim:BINDIR varnoch-trace:BINDIR)
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
foreach(entry varnoch:8 varnoch-flash:1 varnoch-module-sim:1 varnoch-trace:1)
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

# The client library: the shared library goes with the programs, its link name, the static library,
# the headers, the CMake package (find_package(varnoch) gives varnoch::client) and the pkg-config
# file go to dev.
if(TARGET varnoch_client)
  set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/varnoch)
  install(TARGETS varnoch_client varnoch_client_static EXPORT varnochTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT programs NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
  # The public headers, and the protocol's that they include.
  set(include_dirs ${PROJECT_SOURCE_DIR}/src/client/include/)
  if(EXISTS ${PROJECT_SOURCE_DIR}/src/protocol/include)
    list(APPEND include_dirs ${PROJECT_SOURCE_DIR}/src/protocol/include/)
  endif()
  install(DIRECTORY ${include_dirs} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
    FILES_MATCHING PATTERN "*.h")
  install(EXPORT varnochTargets NAMESPACE varnoch:: DESTINATION ${cmake_dir} COMPONENT dev)
  configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/varnochConfig.cmake.in
    ${CMAKE_BINARY_DIR}/varnochConfig.cmake INSTALL_DESTINATION ${cmake_dir})
  write_basic_package_version_file(${CMAKE_BINARY_DIR}/varnochConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
  file(RELATIVE_PATH VARNOCH_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  string(REGEX REPLACE "/$" "" VARNOCH_PC_PREFIX "${VARNOCH_PC_PREFIX}")
  configure_file(${CMAKE_CURRENT_LIST_DIR}/varnoch.pc.in ${CMAKE_BINARY_DIR}/varnoch.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/varnochConfig.cmake ${CMAKE_BINARY_DIR}/varnochConfigVersion.cmake
    DESTINATION ${cmake_dir} COMPONENT dev)
  install(FILES ${CMAKE_BINARY_DIR}/varnoch.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endif()

if(VARNOCH_INSTALLED_PROGRAMS)
  message(STATUS "Installed and packaged programs: ${VARNOCH_INSTALLED_PROGRAMS}")
else()
  message(STATUS "No program targets yet: nothing to install or package")
endif()

include(${CMAKE_CURRENT_LIST_DIR}/Packaging.cmake)
