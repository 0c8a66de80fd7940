# find_package(configstore): configstore::configstore (the shared library) and
# configstore::configstore_static.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include("${CMAKE_CURRENT_LIST_DIR}/configstore-targets.cmake")
