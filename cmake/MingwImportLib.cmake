# Rebuilds the i686 import library so that callers link against the
# decorated __stdcall names (_KIV_Init@0) while the DLL exports plain names.
# Inputs: DEF (ld's --output-def), DLL_NAME, IMPLIB, DLLTOOL.
include(${CMAKE_CURRENT_LIST_DIR}/KivDecoratedDef.cmake)
kiv_write_decorated_def(${DEF} ${DLL_NAME} ${DEF}.decorated)
execute_process(COMMAND ${DLLTOOL} -k -d ${DEF}.decorated -D ${DLL_NAME} -l ${IMPLIB} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "dlltool failed (${rc})")
endif()
