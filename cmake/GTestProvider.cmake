# Provides GTest::gtest, GTest::gtest_main and GTest::gmock to the tests. A native build uses the
# installed libraries; Debian ships those for the build machine only, so a cross build compiles
# GoogleTest from the sources that libgtest-dev/googletest install under /usr/src/googletest.
if(CMAKE_CROSSCOMPILING)
  set(VARNOCH_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources for cross builds")
  if(NOT EXISTS ${VARNOCH_GTEST_SOURCE_DIR}/CMakeLists.txt)
    message(FATAL_ERROR "Cross-building the tests needs the GoogleTest sources in "
                        "${VARNOCH_GTEST_SOURCE_DIR} (Debian package googletest)")
  endif()
  # Only the libraries the tests link are wanted: nothing of GoogleTest is installed or packaged.
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
  # SYSTEM keeps our warning set (and -Werror) away from GoogleTest's headers, as for the native
  # headers under /usr/include.
  add_subdirectory(${VARNOCH_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
  foreach(lib gtest gtest_main gmock gmock_main)
    if(NOT TARGET GTest::${lib})
      add_library(GTest::${lib} ALIAS ${lib})
    endif()
  endforeach()
else()
  find_package(GTest REQUIRED)
endif()
