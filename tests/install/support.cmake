# What the scripts of this folder share.
cmake_minimum_required(VERSION 3.25)

# Runs a command, and stops with all it said if it fails. What it wrote to standard output comes back in `output`.
function(run)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE text ERROR_VARIABLE errors RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "${command}\nended with ${result}:\n${text}\n${errors}")
  endif()
  set(output "${text}" PARENT_SCOPE)
endfunction()

# What the consumers print; they say why.
set(expected_core "64000 voxels, 192000 after scaling by 3\n")
set(expected_io "closed, volume 1\n")
set(library_core TilegridOps)
set(library_io TilegridOpsIo)

# Runs a consumer that was just built.
function(expect_output component)
  run(${ARGN})
  if(NOT output STREQUAL expected_${component})
    message(FATAL_ERROR "The consumer printed '${output}' instead of '${expected_${component}}'")
  endif()
endfunction()

# How the examples are run, and what they print. The points fill a cube of side 2 on a lattice of spacing 1/4. By symmetry half the
# density is found half a spacing beyond its faces, which gives 2.25^3 = 11.4 less what is rounded off along the edges.
set(arguments_adaptive_merge SOURCE/examples/data/bunny.obj OUT)
set(expected_adaptive_merge "\nvoxel size +0.01935.*\n[1-9][0-9]* triangles, closed\n$")
set(arguments_level_set_from_points SOURCE/tests/install/points.csv 0.125 0.75 OUT/points.ply)
set(expected_level_set_from_points "^[1-9][0-9]* triangles, volume ([89]|1[01])([.][0-9]+)?\n$")
