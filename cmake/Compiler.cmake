# Warnings, hardening and sanitizers for every target of the tree.

# Everybody gets these; the library itself gets vxutils_strict on top.
add_library(vxutils_warnings INTERFACE)
target_compile_options(vxutils_warnings INTERFACE
  -Wall -Wextra -Wpedantic $<$<BOOL:${VXUTILS_WERROR}>:-Werror> -Wshadow -Wundef -Wformat=2 -Wcast-align -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast -Wextra-semi>
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-Wduplicated-cond -Wlogical-op>)
# A cast that one machine needs, the other may not: sizes and times differ in width.
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  target_compile_options(vxutils_warnings INTERFACE
    $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-Wuseless-cast>)
endif()

add_library(vxutils_strict INTERFACE)
target_link_libraries(vxutils_strict INTERFACE vxutils_warnings)
target_compile_options(vxutils_strict INTERFACE
  -Wconversion -Wsign-conversion -Wdouble-promotion -Wmissing-declarations)

# Guards that link themselves into their owner for the length of a scope are taken for dangling by GCC 12.
add_compile_options($<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-Wno-dangling-pointer>)

# 32-bit targets: 64-bit times and file offsets everywhere, as every caller must have them.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(VXUTILS_TIME64_DEFINITIONS _TIME_BITS=64 _FILE_OFFSET_BITS=64)
  add_compile_definitions(${VXUTILS_TIME64_DEFINITIONS})
  add_compile_options(-Wno-psabi)  # a note about a parameter passing change in compilers older than any used here
endif()

if(VXUTILS_SANITIZE)
  add_compile_options(-fsanitize=${VXUTILS_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${VXUTILS_SANITIZE})
  if(VXUTILS_SANITIZE MATCHES "thread")
    add_compile_options(-Wno-tsan)  # the standard library's own fences, which the sanitizer knows
  endif()
  if(VXUTILS_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
else()
  add_compile_options(-fstack-protector-strong
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  add_link_options(-Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()
add_link_options(-Wl,--as-needed)

# Hardening of what is installed, on top of what every target gets above; docs/security.md says what is promised. The
# sanitizers bring their own checks.
add_library(vxutils_hardened INTERFACE)
if(NOT VXUTILS_SANITIZE)
  include(CheckCXXCompilerFlag)
  check_cxx_compiler_flag(-ftrivial-auto-var-init=zero VXUTILS_HAS_INITIALIZED_VARIABLES)
  target_compile_options(vxutils_hardened INTERFACE
    "$<$<NOT:$<CONFIG:Debug>>:SHELL:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3>")
  # 32-bit Arm has no control-flow protection, and compilers know only a costly stack-clash protection for it: 7 % of text.
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
    target_compile_options(vxutils_hardened INTERFACE -fstack-clash-protection -fcf-protection=full)
    # The C library's start files carry no mark, so the linker would drop it. They leave return addresses alone. GNU gold
    # cannot set the mark.
    include(CheckLinkerFlag)
    check_linker_flag(CXX LINKER:-z,shstk VXUTILS_LINKER_MARKS_SHADOW_STACKS)
    if(VXUTILS_LINKER_MARKS_SHADOW_STACKS)
      target_link_options(vxutils_hardened INTERFACE LINKER:-z,shstk)
    endif()
  endif()
endif()
