# The version is written in its public header and nowhere else: sets version and version_header. As a script
# (cmake -P cmake/Version.cmake) it prints the version.
set(version_header "${CMAKE_CURRENT_LIST_DIR}/../include/vxutils/version.h")
set(version "")
foreach(part MAJOR MINOR PATCH)
  file(STRINGS "${version_header}" line REGEX "^#define VXUTILS_VERSION_${part} ")
  string(REGEX MATCH "[0-9]+" number "${line}")
  list(APPEND version ${number})
endforeach()
list(JOIN version "." version)
if(CMAKE_SCRIPT_MODE_FILE)
  execute_process(COMMAND "${CMAKE_COMMAND}" -E echo "${version}")
endif()
