# Installs the build afresh, so that nothing of an older one can make a test pass.
include("${CMAKE_CURRENT_LIST_DIR}/support.cmake")
file(REMOVE_RECURSE "${installed}")
run("${CMAKE_COMMAND}" --install "${build}" --prefix "${installed}")
