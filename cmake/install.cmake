# What an installation holds: headers, both libraries, and how CMake and pkg-config find them. All of it says where
# things are relative to itself, so that an installation can be moved.
include(CMakePackageConfigHelpers)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/vekmsg)
set(pc_folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(TARGETS vekmsg vekmsg_static EXPORT vekmsgTargets)
install(EXPORT vekmsgTargets NAMESPACE vekmsg:: DESTINATION ${package_folder})

configure_package_config_file(cmake/vekmsgConfig.cmake.in ${PROJECT_BINARY_DIR}/vekmsgConfig.cmake
  INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vekmsgConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vekmsgConfig.cmake ${PROJECT_BINARY_DIR}/vekmsgConfigVersion.cmake
  DESTINATION ${package_folder})

file(RELATIVE_PATH includedir_from_pc ${CMAKE_INSTALL_PREFIX}/${pc_folder} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(cmake/vekmsg.pc.in ${PROJECT_BINARY_DIR}/vekmsg.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vekmsg.pc DESTINATION ${pc_folder})
