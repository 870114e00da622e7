# What an application gets: the install tree, the CMake package, the
# pkg-config file (native), the version resource and the import library for
# Microsoft's linker (Windows), and the ZIP made by cpack.
#
# Install tree:
#   bin/kivcapture.dll                  Windows
#   lib/libkivcapture.so                native
#   lib/libkivcapture.dll.a             MinGW import library
#   lib/kivcapture.def, kivcapture.lib  for Microsoft's linker
#   include/kivcapture.h
#   lib/cmake/kivcapture/               find_package(kivcapture 6)
#   lib/pkgconfig/kivcapture.pc         native
#   README.md, docs/api.md, samples/    Windows (the ZIP)

include(CMakePackageConfigHelpers)

set(KIV_PACKAGE_DIR ${PROJECT_SOURCE_DIR}/cmake/package)
set(KIV_CMAKE_DIR lib/cmake/kivcapture)

# "ninja install" and cpack install what is built; they do not build the tests.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

if(WIN32)
  enable_language(RC)
  # File and product version, description and name in the DLL's resources.
  configure_file(${KIV_PACKAGE_DIR}/kivcapture.rc.in ${CMAKE_CURRENT_BINARY_DIR}/kivcapture.rc @ONLY)
  target_sources(kivcapture PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/kivcapture.rc)
endif()

if(MINGW)
  # Microsoft's linker gets a module-definition file and an import library of
  # its own. On 32-bit Windows its callers link against the decorated stdcall
  # names (_KIV_Init@0); the library maps them to the plain exports.
  find_program(KIV_LLVM_DLLTOOL NAMES llvm-dlltool llvm-dlltool-14)
  if(KIV_LLVM_DLLTOOL)
    set(kiv_msvc_tool ${KIV_LLVM_DLLTOOL})
  else()
    find_program(KIV_GNU_DLLTOOL NAMES ${CMAKE_SYSTEM_PROCESSOR}-w64-mingw32-dlltool REQUIRED)
    set(kiv_msvc_tool ${KIV_GNU_DLLTOOL})
  endif()
  if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(kiv_machine i386)
  else()
    set(kiv_machine i386:x86-64)
  endif()
  set(kiv_msvc_def ${CMAKE_CURRENT_BINARY_DIR}/msvc/kivcapture.def)
  set(kiv_msvc_lib ${CMAKE_CURRENT_BINARY_DIR}/msvc/kivcapture.lib)
  add_custom_command(TARGET kivcapture POST_BUILD
    COMMAND ${CMAKE_COMMAND} -DEXPORTS_DEF=${CMAKE_CURRENT_BINARY_DIR}/kivcapture.exports.def -DDEF=${kiv_msvc_def}
            -DLIB=${kiv_msvc_lib} -DMACHINE=${kiv_machine} -DTOOL=${kiv_msvc_tool}
            -P ${PROJECT_SOURCE_DIR}/cmake/MsvcImportLib.cmake
    VERBATIM)
  install(FILES ${kiv_msvc_def} ${kiv_msvc_lib} DESTINATION lib)
endif()

target_include_directories(kivcapture INTERFACE $<INSTALL_INTERFACE:include>)
install(TARGETS kivcapture EXPORT kivcaptureTargets
        RUNTIME DESTINATION bin
        LIBRARY DESTINATION lib
        ARCHIVE DESTINATION lib)
install(FILES ${PROJECT_SOURCE_DIR}/include/kivcapture.h DESTINATION include)
install(EXPORT kivcaptureTargets NAMESPACE kivcapture:: DESTINATION ${KIV_CMAKE_DIR})

configure_package_config_file(${KIV_PACKAGE_DIR}/kivcaptureConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kivcaptureConfig.cmake INSTALL_DESTINATION ${KIV_CMAKE_DIR})
# 6.x callers take any 6.y.z at least as new as they ask for; the version file
# also refuses a package built for the other pointer size.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kivcaptureConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kivcaptureConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/kivcaptureConfigVersion.cmake
        DESTINATION ${KIV_CMAKE_DIR})

if(WIN32)
  install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION .)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/api.md DESTINATION docs)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/samples/ DESTINATION samples)
else()
  configure_file(${KIV_PACKAGE_DIR}/kivcapture.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kivcapture.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kivcapture.pc DESTINATION lib/pkgconfig)
endif()

# cpack -G ZIP: kivcapture-6.0.6-win32.zip from the i686 build,
# kivcapture-6.0.6-win64.zip from the x86_64 one (scripts/package.sh).
set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_NAME kivcapture)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
if(WIN32 AND CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(CPACK_SYSTEM_NAME win32)
elseif(WIN32)
  set(CPACK_SYSTEM_NAME win64)
endif()
set(CPACK_PACKAGE_FILE_NAME kivcapture-${PROJECT_VERSION}-${CPACK_SYSTEM_NAME})
set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
set(CPACK_STRIP_FILES ON)
include(CPack)
