# The version check of find_package(tarvik): the one of find_package(Tarvik).
include("${CMAKE_CURRENT_LIST_DIR}/TarvikConfigVersion.cmake")
