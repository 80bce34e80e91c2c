add_test(NAME library.shared_object_exports_and_dependencies
  COMMAND ${CMAKE_COMMAND} -E env NM=${CMAKE_NM} READELF=${CMAKE_READELF} INSTRUMENTED=${QUELTA_INSTRUMENTED} sh ${CMAKE_CURRENT_SOURCE_DIR}/check_shared_object.sh
          $<TARGET_FILE:QueltaAlgo> ${PROJECT_SOURCE_DIR}/core/QueltaAlgo.map)
