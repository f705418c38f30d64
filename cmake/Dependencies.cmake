# What the library calls: libevent, ZeroMQ, Boost (headers), the platform's logging library.
find_package(Threads REQUIRED)
find_package(PkgConfig)

# vxutils_find(NAME header library): an interface target vxutils_dep::NAME, with neither CMake package nor pkg-config
# needed, so that a bare cross sysroot works as well as an ordinary machine.
function(vxutils_find name header library)
  find_path(VXUTILS_${name}_INCLUDE_DIR ${header} REQUIRED)
  add_library(vxutils_dep_${name} INTERFACE)
  target_include_directories(vxutils_dep_${name} SYSTEM INTERFACE "${VXUTILS_${name}_INCLUDE_DIR}")
  if(library)
    find_library(VXUTILS_${name}_LIBRARY ${library} REQUIRED)
    target_link_libraries(vxutils_dep_${name} INTERFACE "${VXUTILS_${name}_LIBRARY}")
  endif()
  add_library(vxutils_dep::${name} ALIAS vxutils_dep_${name})
endfunction()

# bufferevent_* live in the core library: the smaller of the two that libevent offers.
vxutils_find(event event.h event_core)
vxutils_find(zmq zmq.h zmq)
vxutils_find(boost boost/token_iterator.hpp "")

find_path(VXUTILS_devlog_INCLUDE_DIR devlog.h)
find_library(VXUTILS_devlog_LIBRARY devlog)
if(VXUTILS_devlog_INCLUDE_DIR AND VXUTILS_devlog_LIBRARY)
  vxutils_find(devlog devlog.h devlog)
  set(VXUTILS_DEVLOG_STANDIN OFF)
else()
  add_subdirectory("${CMAKE_CURRENT_SOURCE_DIR}/platform/devlog" platform/devlog)
  add_library(vxutils_dep::devlog ALIAS devlog)
  set(VXUTILS_DEVLOG_STANDIN ON)
endif()
