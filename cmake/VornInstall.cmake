# cmake --install build/win-x64 --prefix FOLDER, and the same of build/win-x86 for the 32-bit libraries:
#
#   bin/          vorn.exe, vorn_core.dll, vorn_ipc.dll, vorn_core32.dll, vorn_ipc32.dll
#   include/      vorn/ and the headers of the decision kernel that they name (Policy/)
#   lib/          vorn_host with what it consists of; find_package(vorn) gives the target vorn::vorn_host

install(TARGETS vorn_core vorn_ipc RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(VORN_ARCH STREQUAL "x86")
  return()
endif()
install(TARGETS vorn RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY host/include/vorn core/Policy DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN *.h)
install(TARGETS vorn_host vorn_host_pure vorn_ipc_port vorn_injection vorn_detours vorn_detours_code vorn_platform
    vorn_windows vorn_policy vorn_includes vorn_warnings vorn_nocrt vorn_sanitizers vorn_third_party
  EXPORT vorn ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/vorn)
install(EXPORT vorn NAMESPACE vorn:: FILE vornConfig.cmake DESTINATION ${package})
include(CMakePackageConfigHelpers)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/vornConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/vornConfigVersion.cmake DESTINATION ${package})
