# How each source of the library is optimized and what checks it carries: decided by what they cost on the boards.
# Figures are shares of the instructions that scripts/bench --board counts and of the text that abi/ records.

# Sets the optimization of sources that a release is built with.
function(vxutils_optimize flags)
  set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_OPTIONS "$<$<CONFIG:Release>:${flags}>")
endfunction()

# Hundreds of processes share a board's memory, and its flash is small: a source is compiled for size, unless a benchmark
# then counts more than 3 % more instructions.
set(for_size ${VXUTILS_SOURCES})
list(TRANSFORM for_size REPLACE "^${CMAKE_CURRENT_SOURCE_DIR}/" "")

# Sources with such a benchmark. Without what makes -O2 large, copies of blocks and of small functions, they still keep
# their figures. Not storage.cpp: its one call, made at start, takes 13 % more for size, which saves 1,500 bytes of text.
set(for_speed
  cfread.cpp configd.cpp configreader.cpp csemaphore.cpp csemaphore_mutex_mapping.cpp dio.cpp directory.cpp
  eventsource.cpp file.cpp interface.cpp messagequeue.cpp route.cpp statusinterface.cpp statusinterface_path.cpp
  vxevent.cpp wwanmd.cpp internal/guarded_open.cpp)
# Sources whose loops over characters, digits and table entries need these copies.
set(for_tight_loops address.cpp hashtable.cpp ipaddress.cpp numconv.cpp processcontrol.cpp vxstring.cpp xprintf.cpp)
list(REMOVE_ITEM for_size ${for_speed} ${for_tight_loops} digest.cpp)

set(few_copies "$<$<CXX_COMPILER_ID:GNU>:-fno-inline-functions;-freorder-blocks-algorithm=simple>")
vxutils_optimize("-Os" ${for_size})
vxutils_optimize("${few_copies}" ${for_speed})
# The digests' rounds are the one place where the compiler's last efforts show: a tenth of the time. Their few words of
# state stay in plain registers: gathering them into a vector and back delays the next block.
vxutils_optimize("-O3;-fno-tree-slp-vectorize;${few_copies}" digest.cpp)

# Inline members of the class face are exported as well, for callers that were compiled without optimization.
set_property(SOURCE vxstring.cpp csemaphore.cpp ipaddress.cpp APPEND PROPERTY
  COMPILE_OPTIONS "$<$<CXX_COMPILER_ID:GNU>:-fkeep-inline-functions>")
if(BUILD_SHARED_LIBS AND NOT VXUTILS_FUZZERS AND NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  message(WARNING "${CMAKE_CXX_COMPILER_ID} has no -fkeep-inline-functions: this shared library lacks inline members that "
    "shipped programs may call. Programs that are compiled anew work; build what boards get with GCC.")
endif()

if(NOT VXUTILS_SANITIZE)
  # Guards of the stack cost 10 % of the text where every function has one whose variable is passed by address. Bytes from
  # outside get into arrays of characters: functions with such an array have a guard, those that handle packets and
  # datagrams all.
  set(receivers address.cpp configd.cpp ping.cpp pingclient.cpp route.cpp statusinterface.cpp vxevent.cpp wwanmd.cpp)
  target_compile_options(vxutils_objects PRIVATE -fstack-protector)
  set_property(SOURCE ${receivers} APPEND PROPERTY COMPILE_OPTIONS -fstack-protector-strong)

  # Level 3 of the fortified calls checks the two bytes of each pair of digits with a call: 80 % more to print an address.
  set_property(SOURCE ipaddress.cpp APPEND PROPERTY COMPILE_OPTIONS
    "$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")

  # Initialised automatic variables cost no more than 1 % of the text, but up to three times the instructions where a
  # buffer is filled by a system call: only sources without a benchmark have them. copy_file() counts 7 % more.
  if(VXUTILS_HAS_INITIALIZED_VARIABLES)
    list(REMOVE_ITEM for_size copy.cpp)
    set_property(SOURCE ${for_size} APPEND PROPERTY COMPILE_OPTIONS -ftrivial-auto-var-init=zero)
  endif()
endif()
