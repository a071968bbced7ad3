# `cmake --install`: the tool in bin/, the host library and the plug-in side by side in lib/ (the
# host looks for the plug-in beside itself), the host headers in include/lyn/, and a CMake package
# so that find_package(lyn) and target_link_libraries(app lyn::lyn) work.
include(CMakePackageConfigHelpers)

set(LYN_INSTALL_CMAKEDIR lib/cmake/lyn)

install(TARGETS lyn EXPORT lynTargets
  LIBRARY DESTINATION lib COMPONENT runtime
  INCLUDES DESTINATION include/lyn)
install(TARGETS lyn_avx2 LIBRARY DESTINATION lib COMPONENT runtime)
install(TARGETS lyn_tool RUNTIME DESTINATION bin COMPONENT runtime)
# host/generic/ is the host's own implementation, not part of its interface.
install(DIRECTORY host/ DESTINATION include/lyn/host COMPONENT development
  FILES_MATCHING PATTERN "*.h" PATTERN "generic" EXCLUDE)

install(EXPORT lynTargets NAMESPACE lyn:: DESTINATION ${LYN_INSTALL_CMAKEDIR} COMPONENT development)
configure_package_config_file(cmake/lynConfig.cmake.in ${CMAKE_BINARY_DIR}/lynConfig.cmake
  INSTALL_DESTINATION ${LYN_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/lynConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/lynConfig.cmake ${CMAKE_BINARY_DIR}/lynConfigVersion.cmake
  DESTINATION ${LYN_INSTALL_CMAKEDIR} COMPONENT development)
