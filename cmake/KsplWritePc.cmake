# Run at install time (from cmake_install.cmake): writes the pkg-config
# files for the prefix being installed to. Inputs: KSPL_PC_STAGE,
# KSPL_PC_TEMPLATES, KSPL_PC_LIBDIR, KSPL_PC_INCLUDEDIR, KSPL_PC_VERSION and
# the install script's CMAKE_INSTALL_PREFIX.
set(_prefix "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/+$" "" _prefix "${_prefix}")
# pkg-config splits fields at blanks: a prefix with spaces is escaped, and
# its output is then read back with the shell's eval.
string(REPLACE " " "\\ " KSPL_PC_PREFIX "${_prefix}")
# Programs outside the system's library directories need a run path to find
# liborlm and libzlreg without LD_LIBRARY_PATH.
if(_prefix STREQUAL "/usr" OR _prefix STREQUAL "")
  set(KSPL_PC_RPATH "")
else()
  set(KSPL_PC_RPATH "-Wl,-rpath,\${libdir} ")
endif()
foreach(_template IN LISTS KSPL_PC_TEMPLATES)
  get_filename_component(_name "${_template}" NAME_WE)
  configure_file("${_template}" "${KSPL_PC_STAGE}/${_name}.pc" @ONLY)
endforeach()
