# What `cmake --install` leaves: the libraries, the headers that their users need, a CMake package and pkg-config files.
# Everything finds its parts from where it lies, so that the installed folder may be moved.
include(CMakePackageConfigHelpers)
set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/TilegridOps")

# The headers of a component, core or io, that docs/public_headers.txt lists.
function(tilegrid_install_headers component)
  install(CODE "
    set(source_dir [==[${PROJECT_SOURCE_DIR}]==])
    set(staging_dir [==[${PROJECT_BINARY_DIR}/install_headers]==])
    set(include_dir [==[${CMAKE_INSTALL_INCLUDEDIR}]==])
    set(component [==[${component}]==])" COMPONENT ${component})
  install(SCRIPT "${PROJECT_SOURCE_DIR}/cmake/InstallHeaders.cmake" COMPONENT ${component})
endfunction()

# A library of the package: its target is exported as TilegridOps::COMPONENT, and NAME.pc describes it to pkg-config.
function(tilegrid_install_library target component name description)
  cmake_parse_arguments(arg "" "PKG_CONFIG_REQUIRES" "" ${ARGN})
  install(TARGETS ${target} EXPORT TilegridOps_${component} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component})
  install(EXPORT TilegridOps_${component} NAMESPACE TilegridOps:: DESTINATION ${package_dir} COMPONENT ${component})
  tilegrid_install_headers(${component})

  foreach(kind LIBDIR INCLUDEDIR)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
      set(pc_${kind} "${CMAKE_INSTALL_${kind}}")
    else()
      set(pc_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
    endif()
  endforeach()
  file(RELATIVE_PATH pc_to_prefix "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
  string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
  set(pc_name ${name})
  set(pc_description "${description}")
  set(pc_requires "${arg_PKG_CONFIG_REQUIRES}")
  configure_file("${PROJECT_SOURCE_DIR}/cmake/library.pc.in" "${PROJECT_BINARY_DIR}/${name}.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/${name}.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT ${component})
endfunction()

configure_package_config_file(cmake/TilegridOpsConfig.cmake.in "${PROJECT_BINARY_DIR}/TilegridOpsConfig.cmake"
  INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
# Before 1.0 a new minor version may break its users; the SONAME says the same.
write_basic_package_version_file("${PROJECT_BINARY_DIR}/TilegridOpsConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/TilegridOpsConfig.cmake" "${PROJECT_BINARY_DIR}/TilegridOpsConfigVersion.cmake"
  DESTINATION ${package_dir} COMPONENT core)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT core)

tilegrid_install_library(tilegrid_core core TilegridOps "Volume operators on sparse, adaptive voxel grids")
if(TILEGRID_BUILD_IO)
  tilegrid_install_library(tilegrid_io io TilegridOpsIo "Meshes, .vdb files and pictures for TilegridOps"
    PKG_CONFIG_REQUIRES "TilegridOps = ${PROJECT_VERSION}")
  file(RELATIVE_PATH bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  set_target_properties(tilegrid_io PROPERTIES INSTALL_RPATH "$ORIGIN")
  set_target_properties(tilegrid PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
  install(TARGETS tilegrid RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT command)
endif()
