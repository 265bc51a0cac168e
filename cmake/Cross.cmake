# What a build for another processor needs besides the toolchain file: the libraries that are linked, and GoogleTest.
set(TOLA_SYSROOT ${PROJECT_BINARY_DIR}/sysroot)
execute_process(
  COMMAND ${PROJECT_SOURCE_DIR}/cmake/cross/fetch_sysroot ${TOLA_TARGET_ARCHITECTURE} ${TOLA_SYSROOT}
  RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "The libraries for ${TOLA_TARGET_ARCHITECTURE} could not be fetched; see above.")
endif()
set(CMAKE_FIND_ROOT_PATH ${TOLA_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# In front of the machine's own headers of the same libraries, which the cross compiler looks into as well.
include_directories(BEFORE SYSTEM ${TOLA_SYSROOT}/usr/include ${TOLA_SYSROOT}/usr/include/${CMAKE_LIBRARY_ARCHITECTURE})

# GoogleTest from Debian's sources, since its packages hold the machine's own code only.
macro(tola_build_googletest)
  set(INSTALL_GTEST OFF)
  set(CMAKE_POLICY_DEFAULT_CMP0069 NEW)  # its sources know no link-time optimisation, which is fine for them
  add_subdirectory(/usr/src/googletest ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
endmacro()
