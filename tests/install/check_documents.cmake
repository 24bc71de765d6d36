# The manual page and the completion lie where man and bash look for them, and are what the installed command says.
include("${CMAKE_CURRENT_LIST_DIR}/support.cmake")
function(expect_same file)
  run("${bin}/tilegrid" ${ARGN})
  file(READ "${file}" text)
  # Lists and brackets of CMake change nothing here: both are compared as they were read.
  if(NOT text STREQUAL output OR text STREQUAL "")
    message(FATAL_ERROR "${file} is not what the command prints")
  endif()
endfunction()
expect_same("${man}/man1/tilegrid.1" help --man)
expect_same("${data}/bash-completion/completions/tilegrid" help --completion=bash)
