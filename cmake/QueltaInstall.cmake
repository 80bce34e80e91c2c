# Installation for hosts outside Android: the shared object, the header, a
# CMake package (find_package(QueltaAlgo) -> QueltaAlgo::QueltaAlgo) and a
# pkg-config file. Everything is relative to the prefix, so the installed
# tree can be moved (cmake --install --prefix, DESTDIR).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QUELTA_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/QueltaAlgo
  CACHE STRING "Where the CMake package files go, relative to the prefix")
set(QUELTA_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  CACHE STRING "Where QueltaAlgo.pc goes, relative to the prefix")

install(TARGETS QueltaAlgo EXPORT QueltaAlgoTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/QueltaAlgo.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT QueltaAlgoTargets
  NAMESPACE QueltaAlgo::
  DESTINATION ${QUELTA_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/QueltaAlgoConfig.cmake.in
  ${PROJECT_BINARY_DIR}/QueltaAlgoConfig.cmake
  INSTALL_DESTINATION ${QUELTA_INSTALL_CMAKEDIR})
# 0.x: a new minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QueltaAlgoConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/QueltaAlgoConfig.cmake
  ${PROJECT_BINARY_DIR}/QueltaAlgoConfigVersion.cmake
  DESTINATION ${QUELTA_INSTALL_CMAKEDIR})

# pkg-config: the prefix is found from the .pc file's own place, so the tree
# stays relocatable. The library has no "lib" prefix, so -lQueltaAlgo cannot
# name it: Libs gives the file itself.
if(IS_ABSOLUTE "${QUELTA_INSTALL_PKGCONFIGDIR}")
  set(QUELTA_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH QUELTA_PC_TO_PREFIX /prefix/${QUELTA_INSTALL_PKGCONFIGDIR} /prefix)
  string(REGEX REPLACE "/$" "" QUELTA_PC_TO_PREFIX "${QUELTA_PC_TO_PREFIX}")
  set(QUELTA_PC_PREFIX "\${pcfiledir}/${QUELTA_PC_TO_PREFIX}")
endif()
set(QUELTA_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
set(QUELTA_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
if(NOT IS_ABSOLUTE "${QUELTA_PC_LIBDIR}")
  set(QUELTA_PC_LIBDIR "\${prefix}/${QUELTA_PC_LIBDIR}")
endif()
if(NOT IS_ABSOLUTE "${QUELTA_PC_INCLUDEDIR}")
  set(QUELTA_PC_INCLUDEDIR "\${prefix}/${QUELTA_PC_INCLUDEDIR}")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/QueltaAlgo.pc.in
  ${PROJECT_BINARY_DIR}/QueltaAlgo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/QueltaAlgo.pc
  DESTINATION ${QUELTA_INSTALL_PKGCONFIGDIR})
