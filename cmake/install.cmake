# Install rules: the core library with its public header and a CMake package,
# so that another project can write
#   find_package(splitmerge 0.1 REQUIRED)
#   target_link_libraries(app PRIVATE splitmerge::splitmerge)
# and, when built, the command-line program.
include(CMakePackageConfigHelpers)

set(SPLITMERGE_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/splitmerge
    CACHE STRING "Where the CMake package files are installed")

install(TARGETS splitmerge EXPORT splitmergeTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/splitmerge
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.hpp")
install(EXPORT splitmergeTargets
  NAMESPACE splitmerge::
  DESTINATION ${SPLITMERGE_INSTALL_CMAKEDIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/splitmergeConfig.cmake.in
  ${PROJECT_BINARY_DIR}/splitmergeConfig.cmake
  INSTALL_DESTINATION ${SPLITMERGE_INSTALL_CMAKEDIR})
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/splitmergeConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/splitmergeConfig.cmake
              ${PROJECT_BINARY_DIR}/splitmergeConfigVersion.cmake
  DESTINATION ${SPLITMERGE_INSTALL_CMAKEDIR})

if(TARGET splitmerge_cli)
  install(TARGETS splitmerge_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/CITATION.cff
  DESTINATION ${CMAKE_INSTALL_DOCDIR})
