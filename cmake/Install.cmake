include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(DIRECTORY include/lmkit testbed/include/lmkit DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The test servers go with the library (as lmkit::testbed, not part of lmkit::lmkit), so that the
# benchmarks also build against an installed kit.
install(TARGETS lmkit ${LMKIT_AREA_TARGETS} lmkit_testbed EXPORT lmkitTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(TARGET lmkit_tool)
  install(TARGETS lmkit_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(EXPORT lmkitTargets NAMESPACE lmkit:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/lmkit)
configure_package_config_file(cmake/lmkitConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/lmkitConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/lmkit)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/lmkitConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/lmkitConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/lmkitConfigVersion.cmake
  cmake/Dependencies.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/lmkit)
