# Makes and installs vxutils.pc.
option(VXUTILS_PC_RUN_PATH "Hand out a run path by pkg-config where the prefix is neither /usr nor /usr/local" ON)

# The file names the prefix relative to its own place, so that an installed tree can be moved. In a cross build the prefix is
# written out: there the file is read with PKG_CONFIG_SYSROOT_DIR, which pkg-config puts in front of a relative one twice.
set(VXUTILS_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
if(NOT CMAKE_CROSSCOMPILING AND NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  file(RELATIVE_PATH up "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" up "${up}")
  set(VXUTILS_PC_PREFIX "\${pcfiledir}/${up}")
endif()
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(VXUTILS_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(VXUTILS_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
list(TRANSFORM VXUTILS_TIME64_DEFINITIONS PREPEND " -D" OUTPUT_VARIABLE VXUTILS_PC_DEFINITIONS)
list(JOIN VXUTILS_PC_DEFINITIONS "" VXUTILS_PC_DEFINITIONS)
# What a static library calls. By name, not by Requires.private: Debian's libzmq.pc names files that do not exist.
set(VXUTILS_PC_PRIVATE "")
if(NOT BUILD_SHARED_LIBS)
  set(VXUTILS_PC_PRIVATE " -levent_core -lzmq -l${VXUTILS_CXX_RUNTIME} -pthread")
endif()

set(VXUTILS_PC_RPATH "")
configure_file("${PROJECT_SOURCE_DIR}/packaging/vxutils.pc.in" vxutils.pc @ONLY)
set(VXUTILS_PC_RPATH " -Wl,-rpath,\${libdir}")
configure_file("${PROJECT_SOURCE_DIR}/packaging/vxutils.pc.in" vxutils-run-path.pc @ONLY)

# The loader does not look into other prefixes by itself. What is staged (DESTDIR) or cross built runs elsewhere.
set(run_path OFF)
if(VXUTILS_PC_RUN_PATH AND BUILD_SHARED_LIBS AND NOT CMAKE_CROSSCOMPILING)
  set(run_path ON)
endif()
install(CODE "
  set(name vxutils.pc)
  if(\"${run_path}\" STREQUAL \"ON\" AND NOT DEFINED ENV{DESTDIR} AND NOT CMAKE_INSTALL_PREFIX MATCHES \"^/(usr(/local)?)?/*$\")
    set(name vxutils-run-path.pc)
  endif()
  set(directory \"${CMAKE_INSTALL_LIBDIR}/pkgconfig\")
  if(NOT IS_ABSOLUTE \"\${directory}\")
    set(directory \"\${CMAKE_INSTALL_PREFIX}/\${directory}\")
  endif()
  file(INSTALL \"${CMAKE_CURRENT_BINARY_DIR}/\${name}\" DESTINATION \"\${directory}\" RENAME vxutils.pc)
" COMPONENT development)
