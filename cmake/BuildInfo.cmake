# Writes BuildInfo.h with the version, build number, commit and build date; run at build time so
# the commit is current, and rewritten only when something changed.
execute_process(COMMAND git rev-parse --short HEAD WORKING_DIRECTORY ${SOURCE_DIR}
                OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
if(failed)
  set(commit "")
endif()
execute_process(COMMAND git rev-list --count HEAD WORKING_DIRECTORY ${SOURCE_DIR}
                OUTPUT_VARIABLE build OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
if(failed OR build STREQUAL "")
  set(build "0")
endif()
string(TIMESTAMP date "%Y-%m-%d" UTC)
set(text "#pragma once\n#define BRIM_VERSION \"${VERSION}\"\n#define BRIM_BUILD \"${build}\"\n#define BRIM_COMMIT \"${commit}\"\n#define BRIM_BUILD_DATE \"${date}\"\n")
set(path ${OUTPUT_DIR}/entry/BuildInfo.h)
if(EXISTS ${path})
  file(READ ${path} old)
else()
  set(old "")
endif()
if(NOT old STREQUAL text)
  file(WRITE ${path} "${text}")
endif()
