# What tests, benches and fuzzers are made of. Every program is one statement in the list of its folder:
#
#   vorn_unit_test(NAME [NATIVE|NATIVE_ONLY] SOURCES … LIBS … [NEEDS TARGET…])
#
# The preset win-x64 builds it, with NATIVE the native preset too, with NATIVE_ONLY no other. LIBS may hold linker
# options. NEEDS names programs and DLLs that it starts or loads. win-x86 has none of them: nothing 32-bit runs on the
# build machine, so its DLLs are inspected as files.

# Windows programs run through Wine, or by themselves where the toolchain names no emulator.
set(VORN_UNDER_WINE FALSE)
if(WIN32 AND CMAKE_CROSSCOMPILING_EMULATOR)
  set(VORN_UNDER_WINE TRUE)
endif()

# One ctest entry per program: a process start under Wine costs more than a test.
function(vorn_test_entry name)
  add_test(NAME ${name} COMMAND ${name} WORKING_DIRECTORY ${CMAKE_BINARY_DIR})
  set_tests_properties(${name} PROPERTIES TIMEOUT 600)
  if(VORN_UNDER_WINE)
    set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED wine)
  endif()
  set_property(GLOBAL APPEND PROPERTY VORN_TEST_PROGRAMS ${name})
endfunction()

# The names of all programs with such an entry, one a line, for those who run them without ctest.
function(vorn_list_test_programs file)
  get_property(programs GLOBAL PROPERTY VORN_TEST_PROGRAMS)
  list(JOIN programs "\n" lines)
  file(WRITE ${file} "${lines}\n")
endfunction()

function(vorn_program_options)
  cmake_parse_arguments(PARSE_ARGV 0 ARG "NATIVE;NATIVE_ONLY" "" "SOURCES;LIBS;NEEDS")
  set(skip FALSE)
  if(NOT WIN32 AND NOT ARG_NATIVE AND NOT ARG_NATIVE_ONLY)
    set(skip TRUE)
  elseif(WIN32 AND ARG_NATIVE_ONLY)
    set(skip TRUE)
  endif()
  foreach(name ARG_SOURCES ARG_LIBS ARG_NEEDS skip)
    set(${name} "${${name}}" PARENT_SCOPE)
  endforeach()
endfunction()

function(vorn_program name)
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} vorn_warnings vorn_includes)
  if(WIN32)
    target_link_options(${name} PRIVATE -static)
    target_link_libraries(${name} PRIVATE ntdll kernel32 advapi32)
  endif()
  if(ARG_NEEDS)
    add_dependencies(${name} ${ARG_NEEDS})
  endif()
endfunction()

# A GoogleTest program; on the native preset under the address and undefined-behaviour sanitizers.
function(vorn_unit_test name)
  vorn_program_options(${ARGN})
  if(skip)
    return()
  endif()
  list(APPEND ARG_LIBS gtest_main vorn_sanitizers)
  vorn_program(${name})
  vorn_test_entry(${name})
endfunction()

# A program that is built but not run by the tests; native ones without sanitizers.
function(vorn_bench name)
  vorn_program_options(${ARGN})
  if(skip)
    return()
  endif()
  vorn_plain_libraries(ARG_LIBS ${ARG_LIBS})
  vorn_program(${name})
endfunction()

# A small Windows program that a test starts.
function(vorn_probe name)
  vorn_program_options(${ARGN})
  if(skip)
    return()
  endif()
  vorn_program(${name})
endfunction()
