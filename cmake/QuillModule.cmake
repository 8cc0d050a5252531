# Helpers shared by every target of the project: warnings, sanitizers, symbol visibility and the
# layout of a module library.
include(GenerateExportHeader)

# Compiler settings every project target gets: warnings (errors on request) and the sanitizers
# chosen for this build tree. Kept per target so that a host's own flags are never touched.
#   quill_target_settings(<target> [LIBRARY])
# In sanitizer builds the library code is optimised a little (-O1, as the sanitizers recommend);
# tests and tools are built at -O0 with line tables only, which halves their compile time while
# keeping every stack trace readable.
function(quill_target_settings target)
  cmake_parse_arguments(ARG "LIBRARY" "" "" ${ARGN})
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic)
  if(QUILL_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  # Log lines name the module path ("modules/quill_base/SerialQueue"), not the build machine's.
  target_compile_options(${target} PRIVATE "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")
  if(QUILL_SANITIZE)
    if(ARG_LIBRARY)
      target_compile_options(${target} PRIVATE -O1)
    else()
      target_compile_options(${target} PRIVATE -O0 -g1)
    endif()
    target_compile_options(${target} PRIVATE -fsanitize=${QUILL_SANITIZE} -fno-omit-frame-pointer
                                             -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${QUILL_SANITIZE})
    # Tests scale down sizes and skip memory ceilings that sanitizer overhead would distort.
    target_compile_definitions(${target} PRIVATE QUILL_SANITIZER_BUILD=1)
  endif()
endfunction()

# quill_add_module(<name> SOURCES ... [PUBLIC_DEPS ...] [PRIVATE_DEPS ...])
# Builds modules/<name> as the shared library quill_<name>, aliased quill::<name>, with hidden
# symbols, an export header <name>/<name>_export.h and the module's public headers under include/.
function(quill_add_module name)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES})
  string(REPLACE "quill_" "" short "${name}")
  add_library(quill::${short} ALIAS ${name})
  quill_target_settings(${name} LIBRARY)

  string(TOUPPER "${name}" upper)
  generate_export_header(${name}
    BASE_NAME ${upper}
    EXPORT_FILE_NAME "${CMAKE_CURRENT_BINARY_DIR}/include/${name}/${name}_export.h")

  set_target_properties(${name} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    EXPORT_NAME ${short})

  target_include_directories(${name}
    PUBLIC
      "$<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>"
      "$<BUILD_INTERFACE:${CMAKE_CURRENT_BINARY_DIR}/include>"
      "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>"
    PRIVATE
      "${CMAKE_CURRENT_SOURCE_DIR}")
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  target_compile_definitions(${name} PRIVATE QUILL_VERSION="${PROJECT_VERSION}")
  set_property(GLOBAL APPEND PROPERTY QUILL_MODULES ${name})
endfunction()
