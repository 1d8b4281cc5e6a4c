# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
# The warning level and language of everything that is built here, and what the library itself adds to it.
include(CheckCXXCompilerFlag)

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)

# Source names in texts are relative to the root: two checkouts in different places build the same bytes.
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
# Large files and late dates on both targets. Neither type appears in a public signature.
add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

if(ZEL_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
if(ZEL_SMALL)
  add_compile_definitions(ZEL_SMALL_CONSTANTS)
endif()

set(ZEL_WARNINGS)
set(ZEL_CXX_WARNINGS)
set(ZEL_HARDENING)

# zel_use_option(LIST OPTION): adds to the list an option that the compiler at hand knows for the target.
function(zel_use_option list option)
  string(MAKE_C_IDENTIFIER "ZEL_HAS${option}" known)
  # An option that is merely unknown is a warning to clang.
  set(CMAKE_REQUIRED_FLAGS -Werror)
  check_cxx_compiler_flag(${option} ${known})
  if(${known})
    list(APPEND ${list} ${option})
    set(${list} ${${list}} PARENT_SCOPE)
  endif()
endfunction()

foreach(option -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wformat=2 -Wcast-align -Wcast-qual
    -Wundef -Wwrite-strings -Wdouble-promotion -Wnull-dereference -Wvla)
  zel_use_option(ZEL_WARNINGS ${option})
endforeach()
foreach(option -Wold-style-cast -Wextra-semi -Wzero-as-null-pointer-constant -Wsuggest-override -Wlogical-op
    -Wduplicated-cond -Wduplicated-branches)
  zel_use_option(ZEL_CXX_WARNINGS ${option})
endforeach()
if(ZEL_WERROR)
  list(APPEND ZEL_WARNINGS -Werror)
endif()

# An overrun of an array on the stack ends the process, a large frame cannot jump over the guard page of its stack, and
# where the processor can tell, an indirect call or a return goes nowhere but to its mark.
foreach(option -fstack-protector-strong -fstack-clash-protection -fcf-protection=full)
  zel_use_option(ZEL_HARDENING ${option})
endforeach()

# A call of the C library goes straight through the table of addresses: no stub in between, and on x86 no register that
# holds the table for the stub's sake.
set(ZEL_LIBRARY_CALLS)
zel_use_option(ZEL_LIBRARY_CALLS -fno-plt)

# zel_warnings(TARGET): the project's warning level.
function(zel_warnings target)
  target_compile_options(${target} PRIVATE ${ZEL_WARNINGS} "$<$<COMPILE_LANGUAGE:CXX>:${ZEL_CXX_WARNINGS}>")
endfunction()

# zel_program_options(TARGET): what a program that is shipped is compiled with. The checked forms of the C library's
# calls need an optimising build.
function(zel_program_options target)
  zel_warnings(${target})
  target_compile_options(${target} PRIVATE ${ZEL_HARDENING} -U_FORTIFY_SOURCE
    "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>")
endfunction()

# zel_library_options(TARGET): what every source of the library is compiled with. It needs nothing at run time but the
# C library, exports what its public headers declare and nothing else, and cannot call an unbounded copy.
function(zel_library_options target)
  zel_warnings(${target})
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR})
  # The checked forms of the C library's calls stay off: they end a process whose own format holds %n, and they hide the
  # calls from a program that puts its own in their place.
  target_compile_options(${target} PRIVATE ${ZEL_HARDENING} ${ZEL_LIBRARY_CALLS} -U_FORTIFY_SOURCE
    -fno-exceptions -fno-rtti -fno-threadsafe-statics -include ${PROJECT_SOURCE_DIR}/msg/base/prelude.h)
endfunction()
