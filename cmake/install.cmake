# What `cmake --install` puts in place: library, headers, CMake package, pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS vekcustom EXPORT vekcustom-targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vekcustom FILES_MATCHING PATTERN *.h)

set(VEK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vekcustom)
install(EXPORT vekcustom-targets NAMESPACE vekcustom:: DESTINATION ${VEK_CMAKE_DIR})
configure_package_config_file(cmake/vekcustom-config.cmake.in ${PROJECT_BINARY_DIR}/vekcustom-config.cmake
  INSTALL_DESTINATION ${VEK_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vekcustom-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vekcustom-config.cmake ${PROJECT_BINARY_DIR}/vekcustom-config-version.cmake
  DESTINATION ${VEK_CMAKE_DIR})

# cmake_path joins correctly whether the install directories are relative or absolute.
set(VEK_PC_LIBDIR "\${prefix}")
cmake_path(APPEND VEK_PC_LIBDIR ${CMAKE_INSTALL_LIBDIR})
set(VEK_PC_INCLUDEDIR "\${prefix}")
cmake_path(APPEND VEK_PC_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR})
configure_file(cmake/vekcustom.pc.in ${PROJECT_BINARY_DIR}/vekcustom.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vekcustom.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
