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

# quill_add_module(<name> SOURCES ... [LINK_SOURCES ...] [PUBLIC_DEPS ...] [PRIVATE_DEPS ...])
# Builds modules/<name> as the shared library quill_<name>, aliased quill::<name>, with hidden
# symbols, an export header <name>/<name>_export.h and the module's public headers under include/.
#
# SOURCES are compiled once, into the object library <name>_objects: the shared library is linked
# from those objects, and so are the project's tests of the module's internals, which therefore run
# the very code that ships. LINK_SOURCES go into the shared library alone: the place where a test
# build links something else instead (see quill_add_module_variant). Settings a module adds to its
# compile (definitions, include directories) belong on <name>_objects.
function(quill_add_module name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK_SOURCES;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  string(REPLACE "quill_" "" short "${name}")
  string(TOUPPER "${name}" upper)

  add_library(${name}_objects OBJECT ${ARG_SOURCES})
  quill_target_settings(${name}_objects LIBRARY)
  set_target_properties(${name}_objects PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
  # Compiled as the library itself: its export macro marks what the library exports.
  target_compile_definitions(${name}_objects PRIVATE ${name}_EXPORTS QUILL_VERSION="${PROJECT_VERSION}")
  target_include_directories(${name}_objects
    PUBLIC
      "${CMAKE_CURRENT_SOURCE_DIR}/include"
      "${CMAKE_CURRENT_BINARY_DIR}/include"
    PRIVATE
      "${CMAKE_CURRENT_SOURCE_DIR}")
  target_link_libraries(${name}_objects PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  set_target_properties(${name}_objects PROPERTIES
    QUILL_PUBLIC_DEPS "${ARG_PUBLIC_DEPS}"
    QUILL_PRIVATE_DEPS "${ARG_PRIVATE_DEPS}")

  add_library(${name} SHARED $<TARGET_OBJECTS:${name}_objects> ${ARG_LINK_SOURCES})
  add_library(quill::${short} ALIAS ${name})
  quill_module_library_settings(${name} ${name})
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    EXPORT_NAME ${short})

  if(WIN32)
    # quill_base.dll and so on, the names a host ships; each with a version resource.
    set_target_properties(${name} PROPERTIES PREFIX "")
    set(QUILL_RC_NAME ${name})
    set(QUILL_RC_DESCRIPTION "quill_cloud: the ${short} module")
    configure_file("${PROJECT_SOURCE_DIR}/cmake/QuillVersion.rc.in"
                   "${CMAKE_CURRENT_BINARY_DIR}/${name}.rc" @ONLY)
    target_sources(${name} PRIVATE "${CMAKE_CURRENT_BINARY_DIR}/${name}.rc")
  endif()

  generate_export_header(${name}
    BASE_NAME ${upper}
    EXPORT_FILE_NAME "${CMAKE_CURRENT_BINARY_DIR}/include/${name}/${name}_export.h")
  set_property(GLOBAL APPEND PROPERTY QUILL_MODULES ${name})
endfunction()

# quill_add_module_variant(<variant> MODULE <name> SOURCES ... [PRIVATE_DEPS ...])
# A second shared library linked from the objects of module <name> with other LINK_SOURCES: for the
# project's tests and benchmarks only, never installed.
function(quill_add_module_variant variant)
  cmake_parse_arguments(ARG "" "MODULE" "SOURCES;PRIVATE_DEPS" ${ARGN})
  add_library(${variant} SHARED $<TARGET_OBJECTS:${ARG_MODULE}_objects> ${ARG_SOURCES})
  quill_module_library_settings(${variant} ${ARG_MODULE})
  get_target_property(public_deps ${ARG_MODULE}_objects QUILL_PUBLIC_DEPS)
  get_target_property(private_deps ${ARG_MODULE}_objects QUILL_PRIVATE_DEPS)
  target_link_libraries(${variant} PUBLIC ${public_deps} PRIVATE ${private_deps} ${ARG_PRIVATE_DEPS})
endfunction()

# What a module's shared library (and a variant of it) needs beside its objects: the settings of the
# link, the module's include directories for its users, and the module's export macro for its own
# LINK_SOURCES.
function(quill_module_library_settings target module)
  quill_target_settings(${target} LIBRARY)
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    DEFINE_SYMBOL ${module}_EXPORTS)
  get_target_property(source_dir ${module}_objects SOURCE_DIR)
  get_target_property(binary_dir ${module}_objects BINARY_DIR)
  target_include_directories(${target}
    PUBLIC
      "$<BUILD_INTERFACE:${source_dir}/include>"
      "$<BUILD_INTERFACE:${binary_dir}/include>"
      "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>"
    PRIVATE
      "${source_dir}")
  target_compile_definitions(${target} PRIVATE QUILL_VERSION="${PROJECT_VERSION}")
endfunction()
