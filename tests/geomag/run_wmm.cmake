# SPDX-License-Identifier: Apache-2.0
# Runs quelta-wmm once and checks its exit status, its standard output and
# its standard error.
#   cmake -DTOOL=... -DEMULATOR=... -DARGS=a;b;c;d -DEXIT=n
#         -DSTDOUT_LINE=exact line (empty: no output) | -DSTDOUT_MATCH=regex of the line
#         -DSTDERR=regex -P run_wmm.cmake
execute_process(COMMAND ${EMULATOR} ${TOOL} ${ARGS}
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT status STREQUAL "${EXIT}")
  message(FATAL_ERROR "exit status ${status}, expected ${EXIT}\nstdout: ${out}\nstderr: ${err}")
endif()
if(DEFINED STDOUT_MATCH)
  if(NOT out MATCHES "^${STDOUT_MATCH}\n$")
    message(FATAL_ERROR "stdout '${out}' is not one line matching '${STDOUT_MATCH}'")
  endif()
elseif(STDOUT_LINE STREQUAL "")
  if(NOT out STREQUAL "")
    message(FATAL_ERROR "expected nothing on stdout, got: ${out}")
  endif()
elseif(NOT out STREQUAL "${STDOUT_LINE}\n")
  message(FATAL_ERROR "stdout: '${out}'\nexpected: '${STDOUT_LINE}'")
endif()
if(NOT err MATCHES "${STDERR}")
  message(FATAL_ERROR "stderr '${err}' does not match '${STDERR}'")
endif()
message(STATUS "quelta-wmm ${ARGS}: ${out}${err}")
