# Writes the module-definition file and the import library that Microsoft's
# linker takes (lib/kivcapture.def, lib/kivcapture.lib). On i686 each entry
# is the decorated stdcall name (KIV_Init@0): a 32-bit caller links against
# _KIV_Init@0, and the import (name type "undecorate") resolves to the plain
# export KIV_Init.
# Inputs: EXPORTS_DEF (ld's --output-def), DEF, LIB, MACHINE (i386 or
# i386:x86-64), TOOL (llvm-dlltool, or MinGW's dlltool).
include(${CMAKE_CURRENT_LIST_DIR}/KivDecoratedDef.cmake)
get_filename_component(dir ${DEF} DIRECTORY)
file(MAKE_DIRECTORY ${dir})
kiv_write_decorated_def(${EXPORTS_DEF} kivcapture.dll ${DEF})
set(kill_at)
if(MACHINE STREQUAL "i386")
  set(kill_at -k)
endif()
execute_process(COMMAND ${TOOL} -m ${MACHINE} ${kill_at} -d ${DEF} -l ${LIB} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${TOOL} failed (${rc})")
endif()
