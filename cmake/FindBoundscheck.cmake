# The target `boundscheck`: libboundscheck where it is installed, else the drop-in of src/boundscheck.
find_path(BOUNDSCHECK_INCLUDE securec.h PATH_SUFFIXES boundscheck)
find_library(BOUNDSCHECK_LIBRARY boundscheck)
if(BOUNDSCHECK_INCLUDE AND BOUNDSCHECK_LIBRARY)
  add_library(boundscheck UNKNOWN IMPORTED GLOBAL)
  set_target_properties(boundscheck PROPERTIES
    IMPORTED_LOCATION ${BOUNDSCHECK_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES ${BOUNDSCHECK_INCLUDE})
  set(BOUNDSCHECK_DROP_IN OFF)
else()
  set(BOUNDSCHECK_DROP_IN ON)
endif()
