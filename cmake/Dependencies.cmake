# What the library calls: libevent, ZeroMQ, Boost (headers), the platform's logging library.
find_package(Threads REQUIRED)
include(FindDependency)

# A C program that is linked to the static library needs the C++ run-time library by name.
set(VXUTILS_CXX_RUNTIME "")
if(NOT BUILD_SHARED_LIBS)
  set(VXUTILS_CXX_RUNTIME ${CMAKE_CXX_IMPLICIT_LINK_LIBRARIES})
  list(FILTER VXUTILS_CXX_RUNTIME INCLUDE REGEX "^(stdc\\+\\+|c\\+\\+)$")
endif()

# Stops the configuration where something is missing; `setup` is the argument for scripts/setup.
function(vxutils_require_found setup)
  if(VXUTILS_MISSING)
    list(REMOVE_DUPLICATES VXUTILS_MISSING)
    list(JOIN VXUTILS_MISSING " " missing)
    message(FATAL_ERROR "Missing here: ${missing}\n"
      "Install these Debian packages (apt-get install ${missing}), or run: scripts/setup ${setup}")
  endif()
endfunction()

# bufferevent_* live in the core library: the smaller of the two that libevent offers.
vxutils_find(event event.h event_core libevent-dev)
vxutils_find(zmq zmq.h zmq libzmq3-dev)
vxutils_find(boost boost/token_iterator.hpp "" libboost-dev)
vxutils_require_found(build)

# The stand-in that an earlier installation of this library left on the machine does not count: uninstalling that one would
# take it away from this one. What was found may be gone when the build is configured again.
find_path(VXUTILS_devlog_INCLUDE_DIR devlog.h)
find_library(VXUTILS_devlog_LIBRARY devlog)
set(VXUTILS_DEVLOG_STANDIN ON)
if(EXISTS "${VXUTILS_devlog_INCLUDE_DIR}/devlog.h" AND EXISTS "${VXUTILS_devlog_LIBRARY}")
  file(STRINGS "${VXUTILS_devlog_INCLUDE_DIR}/devlog.h" standin REGEX "^#define DEVLOG_STANDIN ")
  if(NOT standin)
    set(VXUTILS_DEVLOG_STANDIN OFF)
  endif()
endif()
if(VXUTILS_DEVLOG_STANDIN)
  message(STATUS "Logging library: the stand-in of this tree")
  add_subdirectory("${CMAKE_CURRENT_SOURCE_DIR}/platform/devlog" platform/devlog)
else()
  message(STATUS "Logging library: ${VXUTILS_devlog_LIBRARY}")
  vxutils_find(devlog devlog.h devlog "")
endif()
