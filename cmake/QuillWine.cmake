# Running the Windows programs of a cross-build under Wine: CMAKE_CROSSCOMPILING_EMULATOR becomes
# build/<tree>/wine-run, a script that sets up what every such program needs (the Wine prefix,
# WINEPATH with the directories of the DLLs they load, Wine's own chatter off) and runs it. ctest,
# gtest_discover_tests and add_custom_command all go through it.
#
# The Wine prefix is the one scripts/setup-windows initialises, beside the dependency prefix:
# ${XDG_CACHE_HOME:-$HOME/.cache}/quill-cloud/wineprefix (QUILL_WINEPREFIX overrides it).
if(NOT QUILL_WINE_EXECUTABLE)
  message(FATAL_ERROR "Wine is needed to run the Windows programs (package wine64)")
endif()

if(DEFINED ENV{QUILL_WINEPREFIX})
  set(quill_wineprefix "$ENV{QUILL_WINEPREFIX}")
elseif(DEFINED ENV{XDG_CACHE_HOME})
  set(quill_wineprefix "$ENV{XDG_CACHE_HOME}/quill-cloud/wineprefix")
else()
  set(quill_wineprefix "$ENV{HOME}/.cache/quill-cloud/wineprefix")
endif()

# The project's own DLLs sit in each module's build directory.
set(quill_wine_path ${QUILL_WINDOWS_WINEPATH})
foreach(module quill_base quill_network quill_cloud)
  list(APPEND quill_wine_path "${PROJECT_BINARY_DIR}/modules/${module}")
endforeach()
list(JOIN quill_wine_path ";" QUILL_WINE_PATH)
set(QUILL_WINE_PREFIX "${quill_wineprefix}")
configure_file("${CMAKE_CURRENT_LIST_DIR}/wine-run.in" "${PROJECT_BINARY_DIR}/wine-run" @ONLY
               FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                WORLD_READ WORLD_EXECUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR "${PROJECT_BINARY_DIR}/wine-run")
