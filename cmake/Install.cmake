include(CMakePackageConfigHelpers)

set(PACTIVO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Pactivo)

install(TARGETS pactivo EXPORT PactivoTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/pactivo DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_BINARY_DIR}/include/pactivo/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pactivo)

install(EXPORT PactivoTargets NAMESPACE pactivo:: DESTINATION ${PACTIVO_CMAKE_DIR})
configure_package_config_file(cmake/PactivoConfig.cmake.in
  ${PROJECT_BINARY_DIR}/PactivoConfig.cmake INSTALL_DESTINATION ${PACTIVO_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/PactivoConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/PactivoConfig.cmake
  ${PROJECT_BINARY_DIR}/PactivoConfigVersion.cmake DESTINATION ${PACTIVO_CMAKE_DIR})

configure_file(cmake/pactivo.pc.in ${PROJECT_BINARY_DIR}/pactivo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pactivo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The Python package, beside the shared library it loads: with
# PYTHONPATH=<prefix>/<libdir>/python, `import pactivo` finds <libdir>/libpactivo.so.0.
if(BUILD_SHARED_LIBS)
  install(DIRECTORY bindings/python/pactivo DESTINATION ${CMAKE_INSTALL_LIBDIR}/python
    FILES_MATCHING PATTERN "*.py")
endif()
