# Install rules: the shared libraries, the exported headers (the public headers of quill_base and
# quill_cloud; quill_network is an implementation detail of quill_cloud and only its library is
# installed; its target is in the package only because quill::cloud's link needs it), the two
# tools, a CMake package (find_package(quill_cloud CONFIG) gives quill::cloud and quill::base) and a
# pkg-config file (quill_cloud.pc).
include(CMakePackageConfigHelpers)

set(quill_exported_modules quill_base quill_cloud)

# Installed libraries and tools find their siblings next to themselves.
set_target_properties(quill_base quill_network quill_cloud PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS ${quill_exported_modules} quill_network
  EXPORT quill_cloudTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

foreach(module IN LISTS quill_exported_modules)
  install(DIRECTORY "${PROJECT_SOURCE_DIR}/modules/${module}/include/"
                    "${PROJECT_BINARY_DIR}/modules/${module}/include/"
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
          FILES_MATCHING PATTERN "*.h")
endforeach()

if(QUILL_BUILD_TOOLS)
  file(RELATIVE_PATH quill_bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  set_target_properties(quill-cloud quill-fileservice PROPERTIES
    INSTALL_RPATH "$ORIGIN/${quill_bin_to_lib}")
  install(TARGETS quill-cloud quill-fileservice RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

set(quill_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/quill_cloud")
install(EXPORT quill_cloudTargets NAMESPACE quill:: DESTINATION "${quill_cmake_dir}")
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/quill_cloudConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/quill_cloudConfig.cmake"
  INSTALL_DESTINATION "${quill_cmake_dir}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/quill_cloudConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/quill_cloudConfig.cmake"
              "${PROJECT_BINARY_DIR}/quill_cloudConfigVersion.cmake"
        DESTINATION "${quill_cmake_dir}")

# pkg-config: the paths are made relative to the .pc file's own place, so the installed tree can
# be moved.
file(RELATIVE_PATH quill_pc_to_prefix "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig"
     "${CMAKE_INSTALL_PREFIX}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/quill_cloud.pc.in"
               "${PROJECT_BINARY_DIR}/quill_cloud.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/quill_cloud.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
