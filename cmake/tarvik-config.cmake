# find_package(tarvik), in the lower case of the library's own name, finds the same
# package as find_package(Tarvik).
include("${CMAKE_CURRENT_LIST_DIR}/TarvikConfig.cmake")
