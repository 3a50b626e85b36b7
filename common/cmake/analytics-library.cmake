include(${CMAKE_CURRENT_LIST_DIR}/analyticsTargets.cmake)
