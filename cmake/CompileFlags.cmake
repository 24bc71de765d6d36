# One set of flags for all of our own targets. Floating point stays strict: every build of one compiler gives the same bits,
# so no fused multiply-add and no reassociation; the two -fno flags change no value and let loops vectorise.
add_library(tilegrid_flags INTERFACE)
target_compile_options(tilegrid_flags INTERFACE -Wall -Wextra -Werror -ffp-contract=off -fno-math-errno -fno-trapping-math)
# g++ 12 sees an overlap in every `"text" + std::string` that it inlines (GCC bug 105651).
target_compile_options(tilegrid_flags INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64" AND NOT TILEGRID_PLAIN_X86_64)
  target_compile_options(tilegrid_flags INTERFACE -march=x86-64-v2)
endif()
if(TILEGRID_TREE_CHECKS)
  target_compile_definitions(tilegrid_flags INTERFACE TILEGRID_TREE_CHECKS=1)
endif()

# Instrumented templates are slow to compile, and more optimisation finds nothing more.
if(TILEGRID_SANITIZE)
  add_compile_options(-O1 -g1)
endif()
if(TILEGRID_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(TILEGRID_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(TILEGRID_SANITIZE)
  message(FATAL_ERROR "TILEGRID_SANITIZE is '${TILEGRID_SANITIZE}': use address or thread, or leave it empty")
endif()
