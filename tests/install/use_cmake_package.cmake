# A user with CMake: finds the package, links one target, and sets no flag.
include("${CMAKE_CURRENT_LIST_DIR}/support.cmake")
file(REMOVE_RECURSE "${work}")
run("${CMAKE_COMMAND}" -S "${consumer}" -B "${work}" -G "${generator}" -D "CMAKE_MAKE_PROGRAM=${make}"
  -D "CMAKE_CXX_COMPILER=${compiler}" -D "CMAKE_PREFIX_PATH=${installed}" -D CMAKE_EXPORT_COMPILE_COMMANDS=ON -D component=${component})
run("${CMAKE_COMMAND}" --build "${work}")
expect_output(${component} "${work}/consumer")

file(READ "${work}/compile_commands.json" commands)
if(commands MATCHES " (-march|-mtune|-ffp|-fno|-fvisibility|-Wall|-Werror)[^ ]*")
  message(FATAL_ERROR "The package hands one of its own flags to its user: ${CMAKE_MATCH_0}")
endif()
