# Rebuilds the i686 import library so that callers link against the
# decorated __stdcall names (_KIV_Init@0) while the DLL exports plain names.
# Inputs: DEF (ld's --output-def), DLL_NAME, IMPLIB, DLLTOOL.
file(STRINGS ${DEF} lines)
set(out "LIBRARY ${DLL_NAME}\nEXPORTS\n")
foreach(line ${lines})
  if(line MATCHES "^[ \t]+([A-Za-z0-9_]+) = ([A-Za-z0-9_]+@[0-9]+)")
    string(APPEND out "    ${CMAKE_MATCH_2}\n")
  elseif(line MATCHES "^[ \t]+([A-Za-z0-9_@]+)")
    string(APPEND out "    ${CMAKE_MATCH_1}\n")
  endif()
endforeach()
file(WRITE ${DEF}.decorated "${out}")
execute_process(COMMAND ${DLLTOOL} -k -d ${DEF}.decorated -D ${DLL_NAME} -l ${IMPLIB} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "dlltool failed (${rc})")
endif()
