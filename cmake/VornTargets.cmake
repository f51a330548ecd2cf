# Flags and helpers shared by every room.

# Warnings are errors everywhere.
add_library(vorn_warnings INTERFACE)
target_compile_options(vorn_warnings INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Werror -Wno-cast-function-type
  $<$<CXX_COMPILER_ID:GNU>:--param=min-pagesize=0>>)

# Include paths: the repository root ("detours/detours.h") and the library ("Policy/path_hash.h").
add_library(vorn_includes INTERFACE)
target_include_directories(vorn_includes INTERFACE $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>
  $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/core> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

# Builds do not depend on where the sources lie.
add_compile_options(-fdebug-prefix-map=${CMAKE_SOURCE_DIR}/= -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)

if(CMAKE_SYSTEM_PROCESSOR STREQUAL "X86" OR CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(VORN_ARCH x86)
else()
  set(VORN_ARCH x64)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-march=x86-64-v2>)
endif()

if(WIN32)
  set(CMAKE_CXX_STANDARD_LIBRARIES "")  # no -luser32 -lgdi32 ... on every link line
  set(CMAKE_C_STANDARD_LIBRARIES "")
  if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    set(CMAKE_CXX_STANDARD_LIBRARIES -lwinpthread)  # the C++ library needs it; GCC's driver names it by itself
  endif()
  add_compile_definitions(_WIN32_WINNT=0x0A00 WINVER=0x0A00 UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX)
endif()

# Flags of everything that goes into a DLL of ours: no exceptions, no RTTI, no runtime DLL.
add_library(vorn_nocrt INTERFACE)
if(WIN32)
  target_compile_definitions(vorn_nocrt INTERFACE __USE_MINGW_ANSI_STDIO=0)
  # Log lines carry the file name below core/. Faults are found by tables on x64 alone: elsewhere they would be
  # nothing but weight.
  set(unwind $<IF:$<STREQUAL:${VORN_ARCH},x64>,-fasynchronous-unwind-tables,-fno-asynchronous-unwind-tables>)
  target_compile_options(vorn_nocrt INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/core/=
    -fno-exceptions -fno-rtti ${unwind} -fno-ident -ffunction-sections -fdata-sections>)
endif()

# Native rooms and their tests run under the address and undefined-behaviour sanitizers; Wine cannot.
add_library(vorn_sanitizers INTERFACE)
if(NOT WIN32)
  set(sanitize -fsanitize=address,undefined -fno-sanitize-recover=all)
  target_compile_options(vorn_sanitizers INTERFACE ${sanitize} -fno-omit-frame-pointer)
  target_link_options(vorn_sanitizers INTERFACE ${sanitize})
endif()

# vorn_room(NAME FOLDER [LIBS …]): a static library from all sources of one folder, with the flags of the
# library. Not for Platform/runtime (that is linked into DLLs only).
function(vorn_room name folder)
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${folder}/*.cpp ${folder}/*.h)
  if(NOT sources MATCHES "\\.cpp")  # a room of headers only
    file(WRITE ${CMAKE_BINARY_DIR}/${name}_headers_only.cpp "")
    list(APPEND sources ${CMAKE_BINARY_DIR}/${name}_headers_only.cpp)
  endif()
  add_library(${name} STATIC ${sources})
  set_target_properties(${name} PROPERTIES LINKER_LANGUAGE CXX)
  target_link_libraries(${name} PUBLIC vorn_includes ${ARG_LIBS} PRIVATE vorn_warnings vorn_nocrt vorn_sanitizers)
  if(NOT WIN32)
    # Benches measure the code as it ships: the same room without the sanitizers.
    add_library(${name}_plain STATIC EXCLUDE_FROM_ALL ${sources})
    vorn_plain_libraries(plain ${ARG_LIBS})
    target_link_libraries(${name}_plain PUBLIC vorn_includes ${plain} PRIVATE vorn_warnings vorn_nocrt)
  endif()
endfunction()

# vorn_plain_libraries(OUT LIBS…): each room replaced by its twin without sanitizers, where there is one.
function(vorn_plain_libraries out)
  set(plain)
  foreach(lib ${ARGN})
    if(TARGET ${lib}_plain)
      set(lib ${lib}_plain)
    endif()
    list(APPEND plain ${lib})
  endforeach()
  set(${out} ${plain} PARENT_SCOPE)
endfunction()

# Flags of a DLL that carries our own runtime: imports ntdll and kernel32 alone, reproducible byte for byte.
# Every confined process loads it: its sections lie at page boundaries of the file, so that all processes map
# the same pages, and its debug data lies beside it in NAME.dll.debug, so that no loader maps that.
function(vorn_runtime_free_dll target)
  if(VORN_ARCH STREQUAL "x64")
    set(entry DllMainCRTStartup)
  else()
    set(entry _DllMainCRTStartup@12)
  endif()
  set_target_properties(${target} PROPERTIES PREFIX "" LINKER_LANGUAGE CXX)
  target_link_options(${target} PRIVATE -nostdlib -nostartfiles
    -Wl,-e,${entry} -Wl,--disable-auto-import -Wl,--disable-runtime-pseudo-reloc -Wl,--gc-sections
    -Wl,--dynamicbase -Wl,--nxcompat -Wl,--file-alignment,4096
    $<$<CXX_COMPILER_ID:GNU>:-Wl,--no-insert-timestamp>)
  if(VORN_ARCH STREQUAL "x64")
    target_link_options(${target} PRIVATE -Wl,--high-entropy-va)
  endif()
  target_link_libraries(${target} PRIVATE ntdll ntdllcrt kernel32 gcc)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}> $<TARGET_FILE:${target}>.debug
    COMMAND ${CMAKE_STRIP} --preserve-dates $<TARGET_FILE:${target}>)  # also keeps the header's time stamp of 0
endfunction()

# vorn_headers(PACKAGE TARGET FOLDER): the headers of a package of the distribution, found through its CMake
# configuration. Its include folder is the build machine's own, which a cross build must not see: a link leads to the
# package's headers alone.
set(VORN_THIRD_PARTY ${CMAKE_BINARY_DIR}/third_party)
file(MAKE_DIRECTORY ${VORN_THIRD_PARTY})
function(vorn_headers package target folder)
  set(CMAKE_SIZEOF_VOID_P "")  # headers fit every architecture, whichever the package was built for
  file(GLOB places /usr/share/cmake /usr/lib/*/cmake)
  find_package(${package} CONFIG REQUIRED NO_CMAKE_FIND_ROOT_PATH PATHS ${places} PATH_SUFFIXES ${package})
  get_target_property(include ${target} INTERFACE_INCLUDE_DIRECTORIES)
  list(GET include 0 include)
  if(NOT EXISTS ${VORN_THIRD_PARTY}/${folder})
    file(CREATE_LINK ${include}/${folder} ${VORN_THIRD_PARTY}/${folder} SYMBOLIC)
  endif()
endfunction()
vorn_headers(CLI11 CLI11::CLI11 CLI)
vorn_headers(tomlplusplus tomlplusplus::tomlplusplus toml++)
vorn_headers(nlohmann_json nlohmann_json::nlohmann_json nlohmann)
vorn_headers(fmt fmt::fmt-header-only fmt)
add_library(vorn_third_party INTERFACE)
target_include_directories(vorn_third_party SYSTEM INTERFACE $<BUILD_INTERFACE:${VORN_THIRD_PARTY}>)
target_compile_definitions(vorn_third_party INTERFACE FMT_HEADER_ONLY)
