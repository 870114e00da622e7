# Helpers shared by the module folders: each module adds its sources, the
# exported names it implements and the system libraries it needs.

function(kiv_setup_compiler)
  if(MSVC)
    add_compile_options(/W4 /permissive- /utf-8)
  else()
    add_compile_options(-Wall -Wextra -Wno-unused-parameter)
  endif()
  if(KIV_SANITIZE AND NOT WIN32)
    add_compile_options(-fsanitize=${KIV_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${KIV_SANITIZE})
  endif()
  if(WIN32)
    add_compile_definitions(UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX _WIN32_WINNT=0x0601)
    if(MINGW)
      # One self-contained DLL and test executables: no libstdc++/libgcc/winpthread DLLs.
      add_link_options(-static -static-libgcc -static-libstdc++)
    endif()
  endif()
endfunction()

# kiv_sources(file...): portable sources of the library.
function(kiv_sources)
  foreach(f ${ARGN})
    get_filename_component(abs ${f} ABSOLUTE)
    set_property(GLOBAL APPEND PROPERTY KIV_SOURCES ${abs})
  endforeach()
endfunction()

# kiv_windows_sources(file...): sources compiled only in the Windows build.
function(kiv_windows_sources)
  if(WIN32)
    kiv_sources(${ARGN})
  endif()
endfunction()

# kiv_native_sources(file...): sources compiled only in the non-Windows build.
function(kiv_native_sources)
  if(NOT WIN32)
    kiv_sources(${ARGN})
  endif()
endfunction()

# kiv_exports(name...): exported functions implemented by a module.
function(kiv_exports)
  set_property(GLOBAL APPEND PROPERTY KIV_EXPORTS ${ARGN})
endfunction()

# kiv_system_libraries(lib...): Windows system libraries a module needs.
function(kiv_system_libraries)
  if(WIN32)
    set_property(GLOBAL APPEND PROPERTY KIV_SYSTEM_LIBS ${ARGN})
  endif()
endfunction()

# kiv_add_test(name source... [LABELS label...]): a GoogleTest executable
# linked to the library internals; it runs under Wine in the cross builds.
# Label a test "concurrency" when it exercises threads: the thread-sanitizer
# stage of scripts/test-all.sh runs those (ctest -L concurrency).
function(kiv_add_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "LABELS")
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE kivcapture_static kiv_test_support GTest::gtest_main GTest::gmock)
  add_test(NAME ${name} COMMAND ${name})
  # The log file lives beside the executable: tests of one folder share it,
  # so they never run at the same time.
  set_tests_properties(${name} PROPERTIES TIMEOUT 600 RESOURCE_LOCK "log:${CMAKE_CURRENT_BINARY_DIR}")
  if(arg_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${arg_LABELS}")
  endif()
endfunction()
