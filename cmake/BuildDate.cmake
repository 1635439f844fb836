# varnoch_patch_build_date(<target>): after each link of <target>, stamp the UTC build time into the
# program's build-date marker (in place, same length). The build fails unless the marker occurs
# exactly once in the linked file.
find_program(VARNOCH_BASH bash REQUIRED)
set(VARNOCH_PATCH_BUILD_DATE_SCRIPT ${CMAKE_CURRENT_LIST_DIR}/../scripts/patch-build-date)

function(varnoch_patch_build_date target)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${VARNOCH_BASH} ${VARNOCH_PATCH_BUILD_DATE_SCRIPT} $<TARGET_FILE:${target}>
    COMMENT "Stamping the build date into ${target}"
    VERBATIM)
endfunction()
