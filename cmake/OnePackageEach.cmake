# Leaves the shared libraries to the package of that name. CPack runs this before it packs.
file(GLOB_RECURSE libraries LIST_DIRECTORIES OFF ${CPACK_TEMPORARY_DIRECTORY}/development/*.so.*)
if(libraries)
    file(REMOVE ${libraries})
endif()
