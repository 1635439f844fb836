# Two Debian packages per architecture. "varnoch" holds every program of the build (the daemon, its
# command-line client and the simulated module) with their manual pages, and the client library's
# runtime: the programs are small and go together, so a terminal image or a bench machine installs
# one file. "varnoch-dev" holds what building a client application takes (headers, static library,
# CMake package, pkg-config file) and depends on the exact same "varnoch". Build them with
# "cpack --config <build>/CPackConfig.cmake" (scripts/deb-check); packages land in <build>/packages.
set(VARNOCH_DEB_ARCH_x86_64-linux-gnu amd64)
set(VARNOCH_DEB_ARCH_arm-linux-gnueabihf armhf)
set(VARNOCH_DEB_ARCH_aarch64-linux-gnu arm64)
set(arch "${VARNOCH_DEB_ARCH_${CMAKE_CXX_LIBRARY_ARCHITECTURE}}")
if(NOT arch)
  # An unknown triplet: a native build can still ask dpkg; a cross build must say it.
  if(CMAKE_CROSSCOMPILING)
    message(STATUS "Debian architecture of ${CMAKE_CXX_LIBRARY_ARCHITECTURE} unknown: "
                   "set CPACK_DEBIAN_PACKAGE_ARCHITECTURE to package")
  else()
    execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE arch
                    OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  endif()
endif()
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "${arch}" CACHE STRING "Debian architecture of the package")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME varnoch)
set(CPACK_PACKAGE_VENDOR "Strale Technologies")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(VARNOCH_PACKAGE_MAINTAINER "Strale Technologies <varnoch@strale.invalid>"
    CACHE STRING "Maintainer field of the .deb packages")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${VARNOCH_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "CAN flashing daemon for ISOBUS terminals")
set(CPACK_PACKAGE_DESCRIPTION
    "varnoch programs firmware (Intel-HEX files) into the flash memory of ISOBUS control modules\n"
    "over SocketCAN, on behalf of client applications that connect to it over TCP. The package\n"
    "also holds the command-line client varnoch-flash, varnoch-module-sim, a simulated module\n"
    "for checks on a virtual CAN bus, varnoch-trace, which decodes the flashing dialogue on a bus\n"
    "or in a candump log and reports what the kernel knows of a CAN interface, and the runtime of\n"
    "the client library libvarnoch_client.")
string(JOIN "" CPACK_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})

# The programs need nothing but the C and C++ runtimes. dpkg-shlibdeps derives the exact versions
# from the native libraries' symbol files; for the cross libraries Debian has no usable symbol
# files (their shlibs name libc6:armhf and an unversioned libstdc++6), so a cross package states
# the runtimes of the cross toolchain (glibc 2.36, GCC 12) and scripts/deb-check checks the
# programs' NEEDED entries and symbol versions against them.
if(CMAKE_CROSSCOMPILING)
  # -DVARNOCH_DEB_DEPENDS=... overrides it for another toolchain.
  if(NOT DEFINED VARNOCH_DEB_DEPENDS)
    set(VARNOCH_DEB_DEPENDS "libc6 (>= 2.36), libgcc-s1 (>= 3.5), libstdc++6 (>= 12)")
  endif()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "${VARNOCH_DEB_DEPENDS}")
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
# The daemon brings canN up with "ifconfig"; net-tools or busybox provide it.
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_RECOMMENDS "net-tools | busybox")
# The service's system user is made on installation; the units are never enabled by the package.
if(TARGET varnoch)
  set(CPACK_DEBIAN_PROGRAMS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
      ${PROJECT_SOURCE_DIR}/packaging/debian/prerm ${PROJECT_SOURCE_DIR}/packaging/debian/postrm)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL programs)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME varnoch)
set(CPACK_COMPONENT_PROGRAMS_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
if(TARGET varnoch_client)
  # The shared client library: a shlibs file, and the ldconfig trigger (the package has maintainer
  # scripts of its own, so CPack writes none that would run ldconfig).
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
  list(APPEND CPACK_DEBIAN_PROGRAMS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/triggers)
  list(APPEND CPACK_COMPONENTS_ALL dev)
  set(CPACK_DEBIAN_DEV_PACKAGE_NAME varnoch-dev)
  set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
  set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "varnoch (= ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
  set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_DEV_DESCRIPTION
      "Client library of the varnoch CAN flashing daemon: development files\n"
      "Headers, static library, CMake package (find_package(varnoch) gives varnoch::client) and\n"
      "pkg-config file (varnoch) for C++17 applications that drive the varnoch daemon over TCP.")
  string(JOIN "" CPACK_DEBIAN_DEV_DESCRIPTION ${CPACK_DEBIAN_DEV_DESCRIPTION})
endif()

include(CPack)
