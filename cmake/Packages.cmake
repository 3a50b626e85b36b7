# Debian packages of the installation: cpack -G DEB --config build/release/CPackConfig.cmake
set(CPACK_PACKAGE_NAME analytics)
set(CPACK_PACKAGE_VENDOR "analytics")
set(CPACK_PACKAGE_CONTACT "The analytics developers <analytics@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_COMPONENTS_ALL runtime library host testing program
    licence-library licence-development licence-program)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${CMAKE_BINARY_DIR}/common ${CMAKE_BINARY_DIR}/host/services)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The components library and host hold the shared libraries too.
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/OnePackageEach.cmake)

get_target_property(so_version analytics SOVERSION)
set(library_package libanalytics${so_version})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
# The cache of the dynamic linker is renewed.
file(WRITE ${CMAKE_BINARY_DIR}/packages/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packages/triggers)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libanalytics-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${library_package} (= ${PROJECT_VERSION}), libfmt-dev, liburing-dev")
foreach(requirement sqlite3=libsqlite3 rdkafka=librdkafka libnats=libnats prometheus-cpp=prometheus-cpp)
    string(REPLACE = ";" requirement ${requirement})
    list(GET requirement 0 module)
    list(GET requirement 1 package)
    if(" ${forwarding_modules} ${forwarding_packages} " MATCHES " ${module} ")
        string(APPEND CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ", ${package}-dev")
    endif()
endforeach()
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS libgtest-dev)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME analytics-host)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS "${library_package} (= ${PROJECT_VERSION})")

# The place of the licence, in each package.
install(FILES packaging/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${library_package}
        COMPONENT licence-library EXCLUDE_FROM_ALL)
install(FILES packaging/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libanalytics-dev
        COMPONENT licence-development EXCLUDE_FROM_ALL)
install(FILES packaging/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/analytics-host
        COMPONENT licence-program EXCLUDE_FROM_ALL)

include(CPack)
cpack_add_component(runtime GROUP library)
cpack_add_component(licence-library GROUP library)
foreach(component library host testing licence-development)
    cpack_add_component(${component} GROUP development)
endforeach()
cpack_add_component(program GROUP program)
cpack_add_component(licence-program GROUP program)
cpack_add_component_group(library DESCRIPTION "The library and the services of its reference host")
cpack_add_component_group(development DESCRIPTION "Headers, archives and declarations to build with")
cpack_add_component_group(program DESCRIPTION "The reference host as a program: reports a disk's latency")
