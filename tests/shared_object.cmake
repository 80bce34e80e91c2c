# SPDX-License-Identifier: Apache-2.0
add_test(NAME library.shared_object_exports_and_dependencies
  COMMAND ${CMAKE_COMMAND} -E env NM=${CMAKE_NM} READELF=${CMAKE_READELF} INSTRUMENTED=${QUELTA_INSTRUMENTED} sh ${CMAKE_CURRENT_SOURCE_DIR}/check_shared_object.sh
          $<TARGET_FILE:QueltaAlgo> ${PROJECT_SOURCE_DIR}/core/QueltaAlgo.map)

# libquelta.so: quelta_* names only, libc and libm only.
add_test(NAME library.libquelta_exports_and_dependencies
  COMMAND ${CMAKE_COMMAND} -E env NM=${CMAKE_NM} READELF=${CMAKE_READELF} INSTRUMENTED=${QUELTA_INSTRUMENTED} sh ${CMAKE_CURRENT_SOURCE_DIR}/check_shared_object.sh
          $<TARGET_FILE:quelta> ${PROJECT_SOURCE_DIR}/quelta/api/libquelta.map)
# The check itself must notice a name outside the prefix.
add_library(quelta_export_probe SHARED platform/export_probe.cpp)
add_test(NAME library.export_check_detects_foreign_names
  COMMAND ${CMAKE_COMMAND} -E env NM=${CMAKE_NM} READELF=${CMAKE_READELF} INSTRUMENTED=${QUELTA_INSTRUMENTED} sh ${CMAKE_CURRENT_SOURCE_DIR}/check_shared_object.sh
          $<TARGET_FILE:quelta_export_probe> ${PROJECT_SOURCE_DIR}/quelta/api/libquelta.map)
set_tests_properties(library.export_check_detects_foreign_names
  PROPERTIES PASS_REGULAR_EXPRESSION "must be quelta_\\* names only.*probe_outside_the_prefix")
