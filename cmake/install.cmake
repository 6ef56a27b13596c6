# What `cmake --install` puts in place: library, reference host, headers, CMake package, pkg-config files.
include(CMakePackageConfigHelpers)

install(TARGETS vekcustom EXPORT vekcustom-targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
foreach(level IN LISTS VEK_LEVELS)
  install(TARGETS vekcustom_${level} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/glibc-hwcaps/${level})
endforeach()
install(TARGETS vek_host EXPORT vekcustom-targets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ host DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vekcustom FILES_MATCHING PATTERN *.h)

set(VEK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vekcustom)
install(EXPORT vekcustom-targets NAMESPACE vekcustom:: DESTINATION ${VEK_CMAKE_DIR})
configure_package_config_file(cmake/vekcustom-config.cmake.in ${PROJECT_BINARY_DIR}/vekcustom-config.cmake
  INSTALL_DESTINATION ${VEK_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vekcustom-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vekcustom-config.cmake ${PROJECT_BINARY_DIR}/vekcustom-config-version.cmake
  DESTINATION ${VEK_CMAKE_DIR})

# The pkg-config files find the rest from where they lie, so that the installed tree can be moved as a whole.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
  OUTPUT_VARIABLE VEK_PC_PREFIX)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} OUTPUT_VARIABLE VEK_PC_LIBDIR)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
  OUTPUT_VARIABLE VEK_PC_INCLUDEDIR)
foreach(name IN ITEMS vekcustom vekcustom-host)
  configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
