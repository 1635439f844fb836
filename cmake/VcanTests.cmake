# Tests that need the kernel's CAN stack run through scripts/vcan-vm, which gives them can0 and
# can1 (vcan) on the host where it can, or else in a throwaway QEMU guest. See docs/vcan-harness.md.

set(VARNOCH_VCAN_TIMEOUT 900 CACHE STRING
  "Seconds one scripts/vcan-vm run may take before the harness kills it (boot included)")
# CTest's own limit sits above the harness's, so that a hung guest is reported by the harness,
# with its console, rather than killed silently.
set(VARNOCH_VCAN_CTEST_MARGIN 60)

# varnoch_add_vcan_test(<name> LABEL <label> COMMAND <cmd> [args...] [TIMEOUT <seconds>])
# Registers one CTest test that runs <cmd> on a real CAN stack: a whole test program is one test
# and one guest boot. <cmd> may name an executable target. Exit status 77 (no vcan to be had here)
# makes the test skipped. RESOURCE_LOCK keeps two guests from running at once: each emulates a CPU
# at full load, and native runs would share can0.
function(varnoch_add_vcan_test name)
  cmake_parse_arguments(PARSE_ARGV 1 T "" "LABEL;TIMEOUT" "COMMAND")
  if(NOT T_COMMAND)
    message(FATAL_ERROR "varnoch_add_vcan_test(${name}): COMMAND is missing")
  endif()
  if(T_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "varnoch_add_vcan_test(${name}): unexpected ${T_UNPARSED_ARGUMENTS}")
  endif()
  set(vm_timeout ${VARNOCH_VCAN_TIMEOUT})
  if(T_TIMEOUT)
    set(vm_timeout ${T_TIMEOUT})
  endif()
  math(EXPR ctest_timeout "${vm_timeout} + ${VARNOCH_VCAN_CTEST_MARGIN}")

  list(POP_FRONT T_COMMAND cmd)
  if(TARGET ${cmd})
    set(cmd $<TARGET_FILE:${cmd}>)
    # add_test prefixes the emulator only to a target given as the command itself, which here is
    # the harness.
    if(CMAKE_CROSSCOMPILING AND CMAKE_CROSSCOMPILING_EMULATOR)
      set(cmd ${CMAKE_CROSSCOMPILING_EMULATOR} ${cmd})
    endif()
  endif()

  add_test(NAME ${name}
    COMMAND ${PROJECT_SOURCE_DIR}/scripts/vcan-vm --timeout ${vm_timeout} --rw ${PROJECT_BINARY_DIR}
            --ro ${PROJECT_SOURCE_DIR} -- ${cmd} ${T_COMMAND})
  set_tests_properties(${name} PROPERTIES
    LABELS "${T_LABEL}"
    SKIP_RETURN_CODE 77
    TIMEOUT ${ctest_timeout}
    RESOURCE_LOCK vcan)
endfunction()
