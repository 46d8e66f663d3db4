# The development files (headers, pkg-config files, CMake package) and the
# Debian packages. Included last by the top-level CMakeLists.txt, once every
# target exists.
include(CMakePackageConfigHelpers)

set(KSPL_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/kspl" CACHE STRING
  "Where the CMake package (ksplConfig.cmake) is installed, relative to the prefix")
mark_as_advanced(KSPL_INSTALL_CMAKEDIR)

install(FILES
  ${PROJECT_SOURCE_DIR}/include/ks_types.h
  ${PROJECT_SOURCE_DIR}/include/kspl.h
  ${PROJECT_SOURCE_DIR}/include/kspl_status.h
  ${PROJECT_SOURCE_DIR}/include/kspl_ikspl.h
  ${PROJECT_SOURCE_DIR}/include/kspl_om.h
  ${PROJECT_SOURCE_DIR}/include/kspl_exports.h
  ${PROJECT_SOURCE_DIR}/include/kspl_guids.h
  ${PROJECT_SOURCE_DIR}/platform/orlm/include/orlm.h
  ${PROJECT_SOURCE_DIR}/platform/zlreg/include/zlreg.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kspl
  COMPONENT dev)

# kspl::kspl - what a component or a host compiles and links against: the
# headers and the component runtime. kspl.so itself is loaded through the
# runtime, never linked.
add_library(kspl_sdk INTERFACE)
set_target_properties(kspl_sdk PROPERTIES EXPORT_NAME kspl)
target_include_directories(kspl_sdk INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform/orlm/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/kspl>)
target_link_libraries(kspl_sdk INTERFACE orlm)
add_library(kspl::kspl ALIAS kspl_sdk)
add_library(kspl::orlm ALIAS orlm)
add_library(kspl::zlreg ALIAS zlreg)
install(TARGETS kspl_sdk EXPORT ksplTargets)

file(RELATIVE_PATH KSPL_CMAKEDIR_TO_LIBDIR
  "/root/${KSPL_INSTALL_CMAKEDIR}" "/root/${CMAKE_INSTALL_LIBDIR}")
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ksplConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ksplConfig.cmake
  INSTALL_DESTINATION ${KSPL_INSTALL_CMAKEDIR}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ksplConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ksplConfig.cmake ${PROJECT_BINARY_DIR}/ksplConfigVersion.cmake
  DESTINATION ${KSPL_INSTALL_CMAKEDIR} COMPONENT dev)
install(EXPORT ksplTargets NAMESPACE kspl:: DESTINATION ${KSPL_INSTALL_CMAKEDIR} COMPONENT dev)

# pkg-config files are written at install time with the prefix actually
# installed to (cmake --install --prefix, DESTDIR and CPack included), so a
# file reached through a symbolic link still names the real tree.
set(_kspl_pc_stage ${PROJECT_BINARY_DIR}/pkgconfig-install)
install(CODE "
  set(KSPL_PC_STAGE \"${_kspl_pc_stage}\")
  set(KSPL_PC_TEMPLATES \"${PROJECT_SOURCE_DIR}/cmake/kspl.pc.in;${PROJECT_SOURCE_DIR}/cmake/zlreg.pc.in\")
  set(KSPL_PC_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(KSPL_PC_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  set(KSPL_PC_VERSION \"${PROJECT_VERSION}\")
  include(\"${PROJECT_SOURCE_DIR}/cmake/KsplWritePc.cmake\")
" COMPONENT dev)
install(FILES ${_kspl_pc_stage}/kspl.pc ${_kspl_pc_stage}/zlreg.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
unset(_kspl_pc_stage)

# ---- Debian packages (cpack -G DEB in a build tree) ----------------------
set(CPACK_PACKAGE_NAME kspl)
set(CPACK_PACKAGE_VENDOR "Zorvik")
set(CPACK_PACKAGE_CONTACT "kspl maintainers <kspl-maintainers@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Platform-services library of the component family")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime dev tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# Library dependencies (libc6, libstdc++6, libsqlite3-0) come from
# dpkg-shlibdeps, so they name the system's packages and versions.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
endif()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME kspl)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME kspl-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME kspl-zlreg)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION admin)
# zlreg needs libzlreg.so.1 of the runtime package, which dpkg-shlibdeps
# cannot see while packing; the runtime package brings the system libraries
# (libc6, libstdc++6, libsqlite3-0) that zlreg needs too.
set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS OFF)
include(CPack)
cpack_add_component(runtime DISPLAY_NAME "kspl runtime"
  DESCRIPTION "kspl.so, the component runtime liborlm and the configuration store libzlreg")
cpack_add_component(dev DISPLAY_NAME "kspl development files" DEPENDS runtime
  DESCRIPTION "Headers, pkg-config files (kspl, zlreg) and the CMake package (find_package(kspl))")
cpack_add_component(tool DISPLAY_NAME "zlreg" DEPENDS runtime
  DESCRIPTION "zlreg, the administrators' tool for the configuration store")
