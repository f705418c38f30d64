# Tests that run in a virtual gateway, for projects that use the library:
#
#   find_package(vxutils REQUIRED)
#   vxutils_add_gateway_test(NAME alarm COMMAND alarmd_test SCENARIO bouncing-input USER daemon TIMEOUT 20 OPTIONS --net none)
#
# COMMAND is a program of the gateway or the machine, a file, or a target, with its arguments. Programs that the directory's
# targets build are found by their names, by scripts as well. The project's source and build directories are seen in the
# gateway at their own places, read-only. With SCENARIO the program runs while the scenario (a name of the catalogue, or a
# file) is played. TIMEOUT is in seconds; 60 if it is not given. The result is also left as NAME.junit.xml in the build
# directory, the gateway's logs in NAME.gateway there.
function(vxutils_add_gateway_test)
  cmake_parse_arguments(PARSE_ARGV 0 test "" "NAME;SCENARIO;USER;TIMEOUT" "COMMAND;OPTIONS")
  if(NOT test_NAME OR NOT test_COMMAND OR test_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "vxutils_add_gateway_test needs NAME and COMMAND, and does not know: ${test_UNPARSED_ARGUMENTS}")
  endif()
  find_program(VXUTILS_VXGATEWAY vxgateway HINTS "${VXUTILS_PREFIX_BIN}" DOC "vxgateway, of the package vxutils-gateway")
  if(NOT VXUTILS_VXGATEWAY)
    message(FATAL_ERROR "vxutils_add_gateway_test: vxgateway is not installed (package vxutils-gateway)")
  endif()
  if(NOT DEFINED test_TIMEOUT)
    set(test_TIMEOUT 60)
  endif()
  list(POP_FRONT test_COMMAND program)
  if(TARGET ${program})
    set(program "$<TARGET_FILE:${program}>")
  endif()
  set(programs "${CMAKE_CURRENT_BINARY_DIR}")
  if(CMAKE_RUNTIME_OUTPUT_DIRECTORY)
    get_filename_component(programs "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}" ABSOLUTE BASE_DIR "${CMAKE_CURRENT_BINARY_DIR}")
  endif()
  # vxgateway wants the directory to exist, even if the project builds no program.
  if(NOT programs MATCHES "\\$<")
    file(MAKE_DIRECTORY "${programs}")
    get_property(several_configurations GLOBAL PROPERTY GENERATOR_IS_MULTI_CONFIG)
    if(several_configurations)
      foreach(configuration IN LISTS CMAKE_CONFIGURATION_TYPES)
        file(MAKE_DIRECTORY "${programs}/${configuration}")
      endforeach()
      string(APPEND programs "/$<CONFIG>")
    endif()
  endif()
  set(options --show "${CMAKE_SOURCE_DIR}" --show "${CMAKE_BINARY_DIR}" --path "${programs}"
    --path "${CMAKE_CURRENT_BINARY_DIR}" --timeout ${test_TIMEOUT} --junit "${CMAKE_CURRENT_BINARY_DIR}/${test_NAME}.junit.xml"
    --keep "${CMAKE_CURRENT_BINARY_DIR}/${test_NAME}.gateway")
  if(DEFINED test_USER)
    list(APPEND options --user ${test_USER})
  endif()
  set(command run)
  if(DEFINED test_SCENARIO)
    set(command play)
    if(test_SCENARIO MATCHES "/")
      get_filename_component(test_SCENARIO "${test_SCENARIO}" ABSOLUTE)
    endif()
  endif()
  add_test(NAME ${test_NAME} COMMAND "${VXUTILS_VXGATEWAY}" ${command} ${options} ${test_OPTIONS} ${test_SCENARIO}
    -- ${program} ${test_COMMAND})
  # The gateway ends the program first and says so.
  math(EXPR last_resort "${test_TIMEOUT} + 30")
  set_tests_properties(${test_NAME} PROPERTIES TIMEOUT ${last_resort})
endfunction()
