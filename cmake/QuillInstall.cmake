# Installs the module libraries, their public headers and a CMake package so that a host can write
# find_package(quill_cloud CONFIG) and link quill::cloud.
include(CMakePackageConfigHelpers)

get_property(quill_modules GLOBAL PROPERTY QUILL_MODULES)
install(TARGETS ${quill_modules}
  EXPORT quill_cloudTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

foreach(module IN LISTS quill_modules)
  install(DIRECTORY "${PROJECT_SOURCE_DIR}/modules/${module}/include/"
                    "${PROJECT_BINARY_DIR}/modules/${module}/include/"
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endforeach()

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
