# OpenVDB ships a find module instead of a package file. oneTBB is found first, by its package: the module beside OpenVDB's
# would take an older layout for granted.
find_package(TBB REQUIRED)
list(APPEND CMAKE_MODULE_PATH /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/cmake/OpenVDB)
find_package(OpenVDB REQUIRED)
