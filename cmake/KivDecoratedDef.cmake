# kiv_write_decorated_def(EXPORTS_DEF DLL_NAME OUT): turns ld's --output-def
# of the DLL into a module-definition file that lists each export under the
# name callers link against: KIV_Init@0 for the __stdcall functions of the
# 32-bit build, the plain name where ld reports no decoration (x86_64).
function(kiv_write_decorated_def exports_def dll_name out)
  file(STRINGS ${exports_def} lines)
  set(text "LIBRARY ${dll_name}\nEXPORTS\n")
  foreach(line ${lines})
    if(line MATCHES "^[ \t]+([A-Za-z0-9_]+) = ([A-Za-z0-9_]+@[0-9]+)")
      string(APPEND text "    ${CMAKE_MATCH_2}\n")
    elseif(line MATCHES "^[ \t]+([A-Za-z0-9_@]+)")
      string(APPEND text "    ${CMAKE_MATCH_1}\n")
    endif()
  endforeach()
  file(WRITE ${out} "${text}")
endfunction()
