# SPDX-License-Identifier: Apache-2.0
# Platform checks on the built shared object: no fused multiply-add anywhere
# (results must not depend on the target), and the installed tree works for
# every C host through CMake and through pkg-config, and the installed
# program runs.

if(CMAKE_OBJDUMP)
  add_test(NAME platform.no_fused_multiply_add
    COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/platform/check_no_fma.sh
            ${CMAKE_OBJDUMP} $<TARGET_FILE:QueltaAlgo>)

  # The check itself must notice a contraction on this target: an object
  # built with contraction forced on has to fail it.
  add_library(quelta_fma_probe OBJECT platform/fma_probe.c)
  target_compile_options(quelta_fma_probe PRIVATE -O2 -ffp-contract=fast)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
    target_compile_options(quelta_fma_probe PRIVATE -mfma)
  endif()
  add_test(NAME platform.fused_multiply_add_check_detects_contraction
    COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/platform/check_no_fma.sh
            ${CMAKE_OBJDUMP} $<TARGET_OBJECTS:quelta_fma_probe>)
  set_tests_properties(platform.fused_multiply_add_check_detects_contraction
    PROPERTIES PASS_REGULAR_EXPRESSION "fused multiply-add instructions found")
endif()

if(QUELTA_INSTALL)
  string(REPLACE ";" " " quelta_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
  # An instrumented shared object needs a host built with the same sanitizers.
  string(REPLACE ";" " " quelta_host_flags "${QUELTA_HOST_SANITIZER_FLAGS}")
  string(REPLACE ";" " " quelta_host_libs "${QUELTA_HOST_SANITIZER_LIBS}")
  # Installs into scratch prefixes: layout, runtime linker cache, the
  # installed quelta-replay without LD_LIBRARY_PATH, and every C host
  # (examples/, platform/install_host/) through CMake and pkg-config.
  add_test(NAME platform.installed_tree_serves_c_hosts
    COMMAND ${CMAKE_COMMAND} -E env
            "EMULATOR=${quelta_emulator}"
            "TOOLCHAIN_FILE=${CMAKE_TOOLCHAIN_FILE}"
            "CROSS_COMPILER=${QUELTA_CROSS_COMPILER}"
            "C_TARGET=${CMAKE_C_COMPILER_TARGET}"
            "HOST_FLAGS=${quelta_host_flags}"
            "HOST_LIBS=${quelta_host_libs}"
            "READELF=${CMAKE_READELF}"
            sh ${CMAKE_CURRENT_SOURCE_DIR}/platform/check_install.sh
            ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR} ${CMAKE_C_COMPILER})
endif()
