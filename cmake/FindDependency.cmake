# Finding what the library calls; used by its own build and, installed, by the programs that link to it.

# vxutils_find(NAME header library package): an imported target vxutils_dep::NAME, with neither a CMake package nor pkg-config
# needed, so that a bare cross sysroot works as well as an ordinary machine. `library` is "" for headers alone. Where something
# is missing, the list VXUTILS_MISSING gets the name of the Debian package.
function(vxutils_find name header library package)
  if(TARGET vxutils_dep::${name})
    return()
  endif()
  find_path(VXUTILS_${name}_INCLUDE_DIR ${header})
  mark_as_advanced(VXUTILS_${name}_INCLUDE_DIR)
  if(library)
    find_library(VXUTILS_${name}_LIBRARY ${library})
    mark_as_advanced(VXUTILS_${name}_LIBRARY)
  endif()
  if(NOT VXUTILS_${name}_INCLUDE_DIR OR (library AND NOT VXUTILS_${name}_LIBRARY))
    list(APPEND VXUTILS_MISSING ${package})
    set(VXUTILS_MISSING "${VXUTILS_MISSING}" PARENT_SCOPE)
    return()
  endif()
  add_library(vxutils_dep::${name} INTERFACE IMPORTED GLOBAL)
  target_include_directories(vxutils_dep::${name} INTERFACE "${VXUTILS_${name}_INCLUDE_DIR}")
  if(library)
    target_link_libraries(vxutils_dep::${name} INTERFACE "${VXUTILS_${name}_LIBRARY}")
  endif()
endfunction()
