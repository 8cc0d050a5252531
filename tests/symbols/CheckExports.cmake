# Fails unless the dynamic symbols that LIBRARY defines include every pattern of EXPECTED and none of
# FORBIDDEN (regular expressions over the demangled names, separated by "##").
#   cmake -DNM=<nm> -DLIBRARY=<file> -DEXPECTED=<re>##... -DFORBIDDEN=<re>##... -P CheckExports.cmake
# For a Windows DLL, the export table as objdump prints it, demangled with c++filt:
#   cmake -DOBJDUMP=<objdump> -DCXXFILT=<c++filt> -DLIBRARY=<file.dll> ... -P CheckExports.cmake
string(REPLACE "##" ";" EXPECTED "${EXPECTED}")
string(REPLACE "##" ";" FORBIDDEN "${FORBIDDEN}")
if(OBJDUMP)
  execute_process(COMMAND "${OBJDUMP}" -p "${LIBRARY}"
                  OUTPUT_VARIABLE headers
                  RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${OBJDUMP} could not read ${LIBRARY}")
  endif()
  # "[Ordinal/Name Pointer] Table" lists one "\t[  n] name" line per exported name.
  string(REGEX MATCHALL "\n\t\\[ *[0-9]+\\] [^\n]+" entries "${headers}")
  set(mangled "")
  foreach(entry IN LISTS entries)
    string(REGEX REPLACE "^\n\t\\[ *[0-9]+\\] " "" name "${entry}")
    string(APPEND mangled "${name}\n")
  endforeach()
  if(mangled STREQUAL "")
    message(FATAL_ERROR "${LIBRARY} has no export table")
  endif()
  file(WRITE "${LIBRARY}.exports" "${mangled}")
  execute_process(COMMAND "${CXXFILT}" INPUT_FILE "${LIBRARY}.exports"
                  OUTPUT_VARIABLE symbols
                  RESULT_VARIABLE status)
  file(REMOVE "${LIBRARY}.exports")
else()
  execute_process(COMMAND "${NM}" -D -C --defined-only "${LIBRARY}"
                  OUTPUT_VARIABLE symbols
                  RESULT_VARIABLE status)
endif()
if(NOT status EQUAL 0)
  message(FATAL_ERROR "cannot read the exports of ${LIBRARY}")
endif()
string(REPLACE "\n" ";" lines "${symbols}")
foreach(pattern IN LISTS EXPECTED)
  set(found OFF)
  foreach(line IN LISTS lines)
    if(line MATCHES "${pattern}")
      set(found ON)
      break()
    endif()
  endforeach()
  if(NOT found)
    message(FATAL_ERROR "${LIBRARY} does not export ${pattern}")
  endif()
endforeach()
foreach(pattern IN LISTS FORBIDDEN)
  foreach(line IN LISTS lines)
    if(line MATCHES "${pattern}")
      message(FATAL_ERROR "${LIBRARY} exports what must stay inside it: ${line}")
    endif()
  endforeach()
endforeach()
message(STATUS "${LIBRARY}: exports as expected")
