# What `cmake --install` puts where, and the Debian package that CPack makes of it.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(headers ${CMAKE_INSTALL_INCLUDEDIR}/qor-l2rsm)
set(platform_headers ${headers}/platform)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/qor_l2rsm)
set(documents ${CMAKE_INSTALL_DATAROOTDIR}/doc/qor-l2rsm)

# ---- programs and libraries ----

# All that a client component needs: it gets the module's operations in a table.
add_library(qor_l2rsm_headers INTERFACE)
target_include_directories(qor_l2rsm_headers INTERFACE $<INSTALL_INTERFACE:${headers}>)
set_target_properties(qor_l2rsm_headers PROPERTIES EXPORT_NAME headers)

# No versions in the file names: devices load the module, and patches name it, by its plain one.
install(TARGETS qor_l2rsm qor_l2rsm_headers EXPORT qor_l2rsm
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${headers})
install(DIRECTORY include/ DESTINATION ${headers} FILES_MATCHING PATTERN *.h)
install(TARGETS platform-check)
if(L2RSM_PLATFORM STREQUAL bundled)
    file(RELATIVE_PATH libraries_from_bin ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(l2rsm-host PROPERTIES INSTALL_RPATH "$ORIGIN/${libraries_from_bin}")
    install(TARGETS qor_platform EXPORT qor_l2rsm LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
    install(TARGETS l2rsm-host)
    # The platform's headers stand apart: a host with a platform of its own must not meet them.
    target_include_directories(qor_platform INTERFACE $<INSTALL_INTERFACE:${platform_headers}>)
    install(DIRECTORY platform/include/ DESTINATION ${platform_headers} FILES_MATCHING PATTERN *.h)
endif()

# ---- for other builds ----

install(EXPORT qor_l2rsm NAMESPACE qor_l2rsm:: FILE qor_l2rsmTargets.cmake DESTINATION ${package})
configure_package_config_file(cmake/qor_l2rsmConfig.cmake.in cmake/qor_l2rsmConfig.cmake
                              INSTALL_DESTINATION ${package}
                              PATH_VARS CMAKE_INSTALL_BINDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/cmake/qor_l2rsmConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/cmake/qor_l2rsmConfig.cmake
              ${CMAKE_BINARY_DIR}/cmake/qor_l2rsmConfigVersion.cmake DESTINATION ${package})

# Relative to the file, so that it holds wherever the tree is installed or moved.
file(RELATIVE_PATH prefix_from_pc ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pc ${prefix_from_pc})
set(names qor-l2rsm)
if(L2RSM_PLATFORM STREQUAL bundled)
    list(APPEND names qor-platform)
endif()
foreach(name ${names})
    configure_file(cmake/${name}.pc.in ${CMAKE_BINARY_DIR}/cmake/${name}.pc @ONLY)
    install(FILES ${CMAKE_BINARY_DIR}/cmake/${name}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# ---- to read ----

install(FILES docs/l2rsm-host.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES docs/host.md docs/install.md docs/platform.md docs/recording.md
        DESTINATION ${documents})
install(DIRECTORY scenarios examples DESTINATION ${documents}
        PATTERN build EXCLUDE PATTERN *.so EXCLUDE)

# ---- the package ----

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qor-l2rsm)
set(CPACK_PACKAGE_VENDOR "Layer-2 resource manager maintainers")
set(CPACK_PACKAGE_CONTACT "Layer-2 resource manager maintainers <maintainers@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "layer-2 resource manager with its host program")
set(CPACK_PACKAGE_DESCRIPTION
    "The module that services of a network device share the layer-2 tables through, its platform
layer, the program that plays scenarios with it, and what building client components needs.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
find_program(L2RSM_SHLIBDEPS dpkg-shlibdeps)
mark_as_advanced(L2RSM_SHLIBDEPS)
if(L2RSM_SHLIBDEPS)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
endif()
include(CPack)
