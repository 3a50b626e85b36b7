# Installs the library: find_package(analytics) gives analytics::analytics. Included after the
# library's target is there.
include(CMakePackageConfigHelpers)

set(analytics_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/analytics)

install(TARGETS analytics EXPORT analyticsTargets)
install(EXPORT analyticsTargets NAMESPACE analytics:: DESTINATION ${analytics_package_dir})

# A folder of their own, since headers are included as "common/...".
set(analytics_header_dir ${CMAKE_INSTALL_INCLUDEDIR}/analytics)
target_include_directories(analytics INTERFACE $<INSTALL_INTERFACE:${analytics_header_dir}>)
set(replaced_headers "")
if(ANALYTICS_INFRA_DIR)
    # The host's headers, which the library was built with, instead of the repository's.
    set(host_headers ${ANALYTICS_INFRA_DIR}/common/infra)
    install(DIRECTORY ${host_headers} DESTINATION ${analytics_header_dir}/common
            FILES_MATCHING PATTERN "*.h")
    file(GLOB replaced_headers RELATIVE ${host_headers} CONFIGURE_DEPENDS ${host_headers}/*.h)
    list(TRANSFORM replaced_headers REPLACE "(.+)" "PATTERN;\\1;EXCLUDE")
endif()
install(DIRECTORY common DESTINATION ${analytics_header_dir}
        FILES_MATCHING PATTERN "*.h" PATTERN LogLine.h EXCLUDE ${replaced_headers})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/analyticsConfig.cmake.in
    ${PROJECT_BINARY_DIR}/analyticsConfig.cmake
    INSTALL_DESTINATION ${analytics_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/analyticsConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/analyticsConfig.cmake
              ${PROJECT_BINARY_DIR}/analyticsConfigVersion.cmake
        DESTINATION ${analytics_package_dir})
