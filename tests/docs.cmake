# SPDX-License-Identifier: Apache-2.0
# The documents hold: every option README.md and docs/*.md name is listed by
# the --help of its program, every test they name is known to ctest, every
# file they link to is there, and the host snippets of README.md and
# docs/algo.md are part of examples/compass_minimal.c and compass_host.c
# (which the install check compiles and runs).
# The documents name tests and tools of the plain native build (some are not
# registered in cross or instrumented builds), so the check runs there.
if(CMAKE_CROSSCOMPILING OR QUELTA_INSTRUMENTED)
  return()
endif()
find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(QUELTA_DOCS_CHECK ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/docs/check_docs.py
  --source ${PROJECT_SOURCE_DIR} --build ${PROJECT_BINARY_DIR}
  --program quelta-replay=$<TARGET_FILE:quelta-replay>
  --program quelta-make-recording=$<TARGET_FILE:quelta-make-recording>
  --program quelta-wmm=$<TARGET_FILE:quelta-wmm>
  --program quelta-accuracy=$<TARGET_FILE:quelta-accuracy>)
# The magnetic measurement tool is built only where zlib is.
if(TARGET measure_magnetic)
  list(APPEND QUELTA_DOCS_CHECK --program measure_magnetic=$<TARGET_FILE:measure_magnetic>)
endif()
add_test(NAME docs.options_and_tests_named_exist COMMAND ${QUELTA_DOCS_CHECK})

# The check must catch what it is there for: a planted document naming an
# unknown option and an unknown test fails it, both reported.
add_test(NAME docs.check_detects_unknown_options_and_tests
  COMMAND ${QUELTA_DOCS_CHECK} --docs ${CMAKE_CURRENT_SOURCE_DIR}/docs/planted_mistakes.md)
set_tests_properties(docs.check_detects_unknown_options_and_tests PROPERTIES
  PASS_REGULAR_EXPRESSION "--no-such-option is not listed by quelta-replay --help.*--seeed is not listed by quelta-make-recording --help.*test NoSuchSuite.NoSuchTest is not known.*test PoolCapacity.NoSuchCase is not known.*test golden.no_such_trace is not known.*link to no_such_manual.md, which does not exist")
