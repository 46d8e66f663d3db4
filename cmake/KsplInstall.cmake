# Installation rules shared by the libraries and programs.
#
# Install components (they map onto the Debian packages):
#   runtime  kspl.so, liborlm.so.N, libzlreg.so.N
#   dev      headers, the unversioned library links, pkg-config files and
#            the CMake package
#   tool     the zlreg program
#
# Every installed library and program finds its siblings through a run path
# relative to its own location ($ORIGIN), so an install tree works in any
# prefix, moved or not, without LD_LIBRARY_PATH.

file(RELATIVE_PATH _kspl_bin_to_lib "/root/${CMAKE_INSTALL_BINDIR}" "/root/${CMAKE_INSTALL_LIBDIR}")
set(KSPL_LIB_RUNPATH "$ORIGIN")
set(KSPL_BIN_RUNPATH "$ORIGIN/${_kspl_bin_to_lib}")
unset(_kspl_bin_to_lib)

# A shared library of the family that other programs link to: versioned
# file name and SONAME (lib<name>.so.<major>), unversioned link for the
# development package.
function(kspl_install_shared_library target)
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    INSTALL_RPATH "${KSPL_LIB_RUNPATH}")
  install(TARGETS ${target} EXPORT ksplTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
      COMPONENT runtime
      NAMELINK_COMPONENT dev)
endfunction()

# The component library kspl.so: loaded by hosts through the runtime under
# exactly that file name, linked by no one, so it has neither a version in
# its name nor an unversioned link, and it is not part of the exported targets.
function(kspl_install_module target)
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "${KSPL_LIB_RUNPATH}")
  install(TARGETS ${target}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
      COMPONENT runtime
      NAMELINK_SKIP)
endfunction()

function(kspl_install_program target)
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "${KSPL_BIN_RUNPATH}")
  install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
endfunction()
