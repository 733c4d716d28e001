# Install rules and the Debian package (included by the top-level CMakeLists).
#
# Components: Runtime (the tool, its man page and bash completion, the Python
# package), Development (static libraries, headers, CMake package config) and
# Octave (the MATLAB/Octave toolbox).  make deb packs Runtime and Development
# as the package dhc and the toolbox as dhc-octave, so that the tool and the
# Python package do not pull in Octave.
include(CMakePackageConfigHelpers)

set(DHC_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/dhc CACHE PATH "where the CMake package config goes")
set(DHC_INSTALL_MATLABDIR ${CMAKE_INSTALL_DATADIR}/octave/site/m/dhc
    CACHE PATH "where the MATLAB/Octave toolbox goes (Octave's site m directory is on its default path)")

# The tool.
if(TARGET dhc_tool)
  install(TARGETS dhc_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/dhc.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Runtime)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/dhc.bash-completion DESTINATION
          ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME dhc COMPONENT Runtime)
endif()
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Runtime)

# The libraries and their headers: find_package(dhc) gives dhc::dhc (the
# segmenter), dhc::frontend (checked settings, runs from full-frame inputs),
# dhc::hierarchy (cuts, tree JSON and pictures) and dhc::io (GDAL rasters).
set(dhc_libraries dhc dhc_base dhc_settings dhc_data dhc_stats dhc_workspace dhc_engine dhc_driver dhc_frontend
                  dhc_hierarchy dhc_io)
foreach(lib ${dhc_libraries})
  if(NOT lib STREQUAL "dhc")
    string(REGEX REPLACE "^dhc_" "" short ${lib})
    set_target_properties(${lib} PROPERTIES EXPORT_NAME ${short})
  endif()
endforeach()
install(TARGETS ${dhc_libraries} EXPORT dhcTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/dhc COMPONENT Development
        FILES_MATCHING PATTERN "*.h"
        PATTERN "mex" EXCLUDE)  # MATLAB objects: the MEX module's own
install(EXPORT dhcTargets NAMESPACE dhc:: DESTINATION ${DHC_INSTALL_CMAKEDIR} COMPONENT Development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/packaging/dhcConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/packaging/dhcConfig.cmake
                              INSTALL_DESTINATION ${DHC_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/packaging/dhcConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/packaging/dhcConfig.cmake ${PROJECT_BINARY_DIR}/packaging/dhcConfigVersion.cmake
        DESTINATION ${DHC_INSTALL_CMAKEDIR} COMPONENT Development)

# The MATLAB/Octave toolbox: the classes and functions of matlab/ and the
# built MEX module(s).
file(GLOB dhc_matlab_files ${PROJECT_SOURCE_DIR}/matlab/*.m)
install(FILES ${dhc_matlab_files} DESTINATION ${DHC_INSTALL_MATLABDIR} COMPONENT Octave)
if(TARGET dhc_octave_mex)
  install(FILES ${DHC_MEX_DIR}/dhc.mex DESTINATION ${DHC_INSTALL_MATLABDIR} COMPONENT Octave)
endif()
if(TARGET dhc_matlab_mex)
  install(TARGETS dhc_matlab_mex LIBRARY DESTINATION ${DHC_INSTALL_MATLABDIR} COMPONENT Octave)
endif()

# make deb: one package per group, dependencies from the linked libraries.
set(CPACK_PACKAGE_NAME dhc)
set(CPACK_PACKAGE_VENDOR "dhc developers")
set(CPACK_PACKAGE_CONTACT "dhc developers <dhc@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "hierarchical segmentation of multispectral raster images")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://localhost/dhc")
set(CPACK_DEBIAN_DHC_PACKAGE_NAME dhc)
set(CPACK_DEBIAN_DHC_PACKAGE_DEPENDS "python3, python3-numpy")
set(CPACK_DEBIAN_DHC_DESCRIPTION
    "The command-line tool dhc, the Python package dhc (for the system's python3)\n and the C++ libraries, headers and CMake package config.")
set(CPACK_DEBIAN_DHC-OCTAVE_PACKAGE_NAME dhc-octave)
set(CPACK_DEBIAN_DHC-OCTAVE_PACKAGE_DEPENDS "octave")
set(CPACK_DEBIAN_DHC-OCTAVE_DESCRIPTION "The dhc MEX module and its settings classes for GNU Octave.")
include(CPack)
cpack_add_component_group(dhc)
cpack_add_component_group(dhc-octave)
cpack_add_component(Runtime GROUP dhc)
cpack_add_component(Development GROUP dhc)
cpack_add_component(Octave GROUP dhc-octave)
