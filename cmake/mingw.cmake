# What the toolchains for Windows share. Before it: VORN_TRIPLE, the name of the distribution's cross compiler.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_RC_COMPILER ${VORN_TRIPLE}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${VORN_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(kind LIBRARY INCLUDE PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
endforeach()
