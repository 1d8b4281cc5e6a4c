# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
# The static checks, label "lint", in one build folder alone: the sources are the same in all. One test for each source,
# so that all processors have work. ./dev lint installs the tools and runs them.

set(ZEL_LINT_DATABASE ${CMAKE_CURRENT_BINARY_DIR}/lint)
set(ZEL_CODE_FOLDERS msg malloc components examples tools bench tests)
set(ZEL_TIDY_SOURCES)
set(ZEL_FORMAT_SOURCES ${PROJECT_SOURCE_DIR}/zel.h)
foreach(folder ${ZEL_CODE_FOLDERS})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}
    ${PROJECT_SOURCE_DIR}/${folder}/*.cpp ${PROJECT_SOURCE_DIR}/${folder}/*.c)
  file(GLOB_RECURSE headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.h)
  list(APPEND ZEL_TIDY_SOURCES ${sources})
  list(APPEND ZEL_FORMAT_SOURCES ${headers})
endforeach()

# zel_lint(NAME COMMAND...): a static check.
function(zel_lint name)
  add_test(NAME ${ZEL_PRESET}/lint.${name} COMMAND ${ARGN} WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
  set_tests_properties(${ZEL_PRESET}/lint.${name} PROPERTIES LABELS lint TIMEOUT 300)
endfunction()

zel_lint(format clang-format --dry-run -Werror ${ZEL_TIDY_SOURCES} ${ZEL_FORMAT_SOURCES})
zel_lint(scripts shellcheck dev .ci/run)
zel_lint(database ${ZEL_PYTHON} -B ${CMAKE_CURRENT_SOURCE_DIR}/lint_database.py
  ${PROJECT_BINARY_DIR}/compile_commands.json ${ZEL_LINT_DATABASE}/compile_commands.json)
set_tests_properties(${ZEL_PRESET}/lint.database PROPERTIES FIXTURES_SETUP lint_database)
# A peer that is not installed has no headers to check its measurement with.
get_property(ZEL_LEFT_OUT GLOBAL PROPERTY ZEL_LEFT_OUT_SOURCES)
if(ZEL_LEFT_OUT)
  list(REMOVE_ITEM ZEL_TIDY_SOURCES ${ZEL_LEFT_OUT})
endif()
foreach(source ${ZEL_TIDY_SOURCES})
  zel_lint(tidy:${source} clang-tidy --quiet -p ${ZEL_LINT_DATABASE} ${source})
  set_tests_properties(${ZEL_PRESET}/lint.tidy:${source} PROPERTIES FIXTURES_REQUIRED lint_database)
endforeach()
