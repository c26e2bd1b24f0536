# Installation and the Debian package.  Under the prefix (<libdir> is
# lib/<multiarch> under /usr, lib elsewhere):
#
#   <libdir>/libtcpvxi.so.1          the driver (SONAME libtcpvxi.so.1)          libtcpvxi1
#   <libdir>/visa/libtcpvxi.so       the plug-in name a host VISA library loads  libtcpvxi1
#   <libdir>/libtcpvxi.so            link-time name for programs built against it  libtcpvxi-dev
#   include/tcpvxi/                  public headers (tcpvxi.h includes them all)  libtcpvxi-dev
#   <libdir>/pkgconfig/tcpvxi.pc, <libdir>/cmake/tcpvxi/                         libtcpvxi-dev
#   bin/                             tcpvxi-host, tcpvxi-bridge-sim, vxi11-instrument-sim  tcpvxi-tools
#   share/tcpvxi/mainframes/         example mainframe descriptions for the simulator  tcpvxi-tools
#   share/man/man1, man5             pages of the programs and of resmantcpvxi.out  tcpvxi-tools
#   share/doc/tcpvxi/                reference documents                          tcpvxi-tools
#   share/doc/<package>/             each package's copyright and changelog
#   lib/python3/dist-packages/pyvisa_tcpvxi/  (python/CMakeLists.txt)           python3-pyvisa-tcpvxi
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KV_PLUGIN_DIR ${CMAKE_INSTALL_LIBDIR}/visa)

# ---------------------------------------------------------------- library
# A versioned SONAME lets the library live in the system library directory
# next to others; the unversioned names are symbolic links to it.
set_target_properties(tcpvxi PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
install(TARGETS tcpvxi EXPORT tcpvxiTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_SKIP COMPONENT runtime)
# The link-time name and the plug-in name, both relative links to the SONAME
# file so that the tree stays relocatable (and one copy of the code).
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/install-links/visa)
file(CREATE_LINK libtcpvxi.so.${PROJECT_VERSION_MAJOR} ${CMAKE_BINARY_DIR}/install-links/libtcpvxi.so SYMBOLIC)
file(CREATE_LINK ../libtcpvxi.so.${PROJECT_VERSION_MAJOR} ${CMAKE_BINARY_DIR}/install-links/visa/libtcpvxi.so SYMBOLIC)
install(FILES ${CMAKE_BINARY_DIR}/install-links/libtcpvxi.so DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(FILES ${CMAKE_BINARY_DIR}/install-links/visa/libtcpvxi.so DESTINATION ${KV_PLUGIN_DIR} COMPONENT runtime)

# ---------------------------------------------------------------- headers
# What a program needs to call the exported transport, INI reader, toolbox,
# platform services and driver entry points: VISA types and status codes, the
# connection record, the shared-block and bridge record layouts.  The
# library-internal headers (*_internal.h, TcpVxiAPIint.h) stay out.  The
# headers include one another by bare name, so they share one directory.
set(KV_PUBLIC_HEADERS
  common/kvexport.h common/kvlog.h common/kvvisatypes.h
  common/kvtcp/kvtcp.h common/kvtcp/port4880.h common/kvtcp/rpc_vxi11.h
  common/src/inifile.h common/src/itemlist.h common/src/toolbox.h
  visa-ipc/visa-ipc.h
  tcpvxi/if-api/TcpVxiAPI.h tcpvxi/if-api/TcpVxiAPIStd.h tcpvxi/if-api/HiSLIPcommands.h
  common/tcpvxi.h)
list(TRANSFORM KV_PUBLIC_HEADERS PREPEND ${CMAKE_SOURCE_DIR}/)
install(FILES ${KV_PUBLIC_HEADERS} ${CMAKE_BINARY_DIR}/generated/tcpvxi_version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tcpvxi COMPONENT dev)

# ---------------------------------------------------------------- pkg-config and CMake package
# Both locate the tree from their own position, so an installed tree may be
# moved (or used under a DESTDIR) as it stands.
file(RELATIVE_PATH KV_PC_TO_PREFIX ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" KV_PC_TO_PREFIX "${KV_PC_TO_PREFIX}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/tcpvxi.pc.in ${CMAKE_BINARY_DIR}/tcpvxi.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/tcpvxi.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

set(KV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tcpvxi)
install(EXPORT tcpvxiTargets NAMESPACE tcpvxi:: DESTINATION ${KV_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/tcpvxiConfig.cmake.in
  ${CMAKE_BINARY_DIR}/tcpvxiConfig.cmake INSTALL_DESTINATION ${KV_CMAKE_DIR} PATH_VARS KV_PLUGIN_DIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/tcpvxiConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/tcpvxiConfig.cmake ${CMAKE_BINARY_DIR}/tcpvxiConfigVersion.cmake
  DESTINATION ${KV_CMAKE_DIR} COMPONENT dev)

# ---------------------------------------------------------------- programs, examples, documents
set(KV_PROGRAMS)
foreach(p tcpvxi-host tcpvxi-bridge-sim vxi11-instrument-sim)
  if(TARGET ${p})
    list(APPEND KV_PROGRAMS ${p})
  endif()
endforeach()
if(KV_PROGRAMS)
  install(TARGETS ${KV_PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()
# tcpvxi-host loads the driver by its SONAME.  Under a prefix whose library
# directory the loader does not search by itself, the installed host carries a
# run path relative to its own place; under /usr it carries none.
list(FIND CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES ${CMAKE_INSTALL_FULL_LIBDIR} kv_sys_libdir)
if(TARGET tcpvxi-host AND kv_sys_libdir EQUAL -1)
  file(RELATIVE_PATH kv_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(tcpvxi-host PROPERTIES INSTALL_RPATH "$ORIGIN/${kv_bin_to_lib}")
endif()
install(DIRECTORY ${CMAKE_SOURCE_DIR}/tools/bridge-sim/mainframes/
  DESTINATION ${CMAKE_INSTALL_DATADIR}/tcpvxi/mainframes COMPONENT tools FILES_MATCHING PATTERN "*.ini")
install(FILES ${CMAKE_SOURCE_DIR}/doc/resource-file.md ${CMAKE_SOURCE_DIR}/doc/bridge-sim.md
  ${CMAKE_SOURCE_DIR}/doc/diagnostics.md ${CMAKE_SOURCE_DIR}/doc/install.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT tools)

# ---------------------------------------------------------------- manual pages
# The programs' pages come from their own --help at build time, so they
# cannot drift from the programs; the version is the project's, given
# outright, so that generation does not run the programs' --version.
# Pages are installed compressed, as Debian expects.
find_program(KV_HELP2MAN help2man)
find_program(KV_GZIP gzip)
set(KV_MAN_DIR ${CMAKE_BINARY_DIR}/man)
file(MAKE_DIRECTORY ${KV_MAN_DIR})
set(KV_MAN_PAGES)
set(kv_man_tcpvxi-host "command-line host for the TCP-VXI interface driver")
set(kv_man_tcpvxi-bridge-sim "simulated LAN-to-VXI bridge with a VXI mainframe")
set(kv_man_vxi11-instrument-sim "simulated VXI-11 instrument")
# Sanitizer builds skip them: running their programs at build time would
# mix the sanitizers' reports into the pages.
if(KV_HELP2MAN AND KV_GZIP AND NOT KV_SANITIZE AND NOT KV_FUZZ)
  file(WRITE ${KV_MAN_DIR}/see-also.h2m "[SEE ALSO]\n.BR tcpvxi-host (1),\n.BR tcpvxi-bridge-sim (1),\n"
    ".BR vxi11-instrument-sim (1),\n.BR resmantcpvxi.out (5).\n"
    "The reference documents are in\n.IR ${CMAKE_INSTALL_FULL_DOCDIR} .\n")
  # The simulator's page names the example mainframes.
  file(WRITE ${KV_MAN_DIR}/tcpvxi-bridge-sim.h2m "[FILES]\n.TP\n.I ${CMAKE_INSTALL_FULL_DATADIR}/tcpvxi/mainframes/\n"
    "Example mainframe descriptions for\n.BR \\-m :\n.I default.ini\nis the built-in mainframe written out.\n")
  set(kv_h2m_tcpvxi-bridge-sim ${KV_MAN_DIR}/tcpvxi-bridge-sim.h2m)
  # tcpvxi-host's page also lists its commands, from its own --commands.
  if(TARGET tcpvxi-host)
    set(kv_h2m_tcpvxi-host ${KV_MAN_DIR}/tcpvxi-host.h2m)
    add_custom_command(OUTPUT ${KV_MAN_DIR}/tcpvxi-host.h2m
      COMMAND sh -c [=[{ echo '[COMMANDS]'; echo .nf; "$1" --commands | sed 's/\\/\\e/g'; echo .fi; } > tcpvxi-host.h2m]=]
              sh $<TARGET_FILE:tcpvxi-host>
      WORKING_DIRECTORY ${KV_MAN_DIR} DEPENDS tcpvxi-host VERBATIM)
  endif()
  foreach(p ${KV_PROGRAMS})
    set(kv_includes --include=${KV_MAN_DIR}/see-also.h2m)
    if(kv_h2m_${p})
      list(APPEND kv_includes --include=${kv_h2m_${p}})
    endif()
    add_custom_command(OUTPUT ${KV_MAN_DIR}/${p}.1.gz
      COMMAND ${KV_HELP2MAN} --no-info --version-string=${PROJECT_VERSION} --section=1
              "--name=${kv_man_${p}}" ${kv_includes} --output=${KV_MAN_DIR}/${p}.1 $<TARGET_FILE:${p}>
      COMMAND ${KV_GZIP} -9nf ${KV_MAN_DIR}/${p}.1
      DEPENDS ${p} ${kv_h2m_${p}}
      COMMENT "man page of ${p}" VERBATIM)
    list(APPEND KV_MAN_PAGES ${KV_MAN_DIR}/${p}.1.gz)
  endforeach()
  if(KV_MAN_PAGES)
    install(FILES ${KV_MAN_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  endif()
elseif(KV_PROGRAMS AND NOT KV_HELP2MAN)
  message(WARNING "help2man missing: the programs' manual pages are not built")
endif()
if(KV_GZIP)
  # The version in the hand-written page and the changelog is the project's.
  configure_file(${CMAKE_SOURCE_DIR}/doc/resmantcpvxi.out.5 ${KV_MAN_DIR}/resmantcpvxi.out.5 @ONLY)
  configure_file(${CMAKE_SOURCE_DIR}/doc/changelog ${KV_MAN_DIR}/changelog @ONLY)
  add_custom_command(OUTPUT ${KV_MAN_DIR}/resmantcpvxi.out.5.gz ${KV_MAN_DIR}/changelog.gz
    COMMAND sh -c "${KV_GZIP} -9nc resmantcpvxi.out.5 > resmantcpvxi.out.5.gz"
    COMMAND sh -c "${KV_GZIP} -9nc changelog > changelog.gz"
    WORKING_DIRECTORY ${KV_MAN_DIR} VERBATIM
    DEPENDS ${KV_MAN_DIR}/resmantcpvxi.out.5 ${KV_MAN_DIR}/changelog)
  add_custom_target(kv_man ALL DEPENDS ${KV_MAN_PAGES} ${KV_MAN_DIR}/resmantcpvxi.out.5.gz ${KV_MAN_DIR}/changelog.gz)
  install(FILES ${KV_MAN_DIR}/resmantcpvxi.out.5.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT tools)
endif()

# Every package carries the copyright and the changelog under its own name.
set(KV_PACKAGES runtime libtcpvxi1 dev libtcpvxi-dev tools tcpvxi-tools python python3-pyvisa-tcpvxi)
while(KV_PACKAGES)
  list(POP_FRONT KV_PACKAGES kv_comp kv_pkg)
  string(TOUPPER ${kv_comp} kv_COMP)
  set(CPACK_DEBIAN_${kv_COMP}_PACKAGE_NAME ${kv_pkg})
  install(FILES ${CMAKE_SOURCE_DIR}/doc/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${kv_pkg} COMPONENT ${kv_comp})
  if(KV_GZIP)
    install(FILES ${KV_MAN_DIR}/changelog.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${kv_pkg} COMPONENT ${kv_comp})
  endif()
endwhile()

# ---------------------------------------------------------------- Debian packages (make package)
# One package per use, as Debian splits libraries: the plug-in a host loads
# (libtcpvxi1, named after the SONAME), what a program needs to build against
# it (libtcpvxi-dev), the command-line host and the simulators (tcpvxi-tools),
# and the PyVISA backend (python3-pyvisa-tcpvxi).  The summary is each
# description's first line.
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools python)
set(CPACK_PACKAGE_NAME tcpvxi)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "tcpvxi project")
set(CPACK_PACKAGE_CONTACT "tcpvxi maintainers <tcpvxi@example.org>")
set(kv_about "libtcpvxi drives LAN-to-VXI bridges over HiSLIP for a host VISA library.
It also exports an instrument transport (HiSLIP, VXI-11, raw TCP), an INI
reader and process services.")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "TCP-VXI interface driver plug-in for a VISA library
${kv_about}")
set(CPACK_DEBIAN_DEV_DESCRIPTION "TCP-VXI interface driver plug-in - development files
${kv_about}
.
This package holds the headers, the pkg-config file and the CMake package
for programs that call libtcpvxi directly.")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "TCP-VXI command-line host and simulated instruments
tcpvxi-host loads libtcpvxi the way a host VISA library does and runs its
calls from a prompt, a script or the command line; tcpvxi-bridge-sim is a
simulated LAN-to-VXI bridge with a VXI mainframe, and vxi11-instrument-sim a
simulated VXI-11 instrument.")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "PyVISA backend for the TCP-VXI interface driver
pyvisa_tcpvxi lets PyVISA programs reach VXI instruments behind LAN-to-VXI
bridges through libtcpvxi: ResourceManager('@tcpvxi').")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Runtime dependencies (libc, libstdc++, libtirpc, libreadline, ...) come from
# the binaries themselves; the library's own from the shlibs file; the rest
# are the packages' ties to the library of the same version.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(kv_same_lib "libtcpvxi1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${kv_same_lib}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${kv_same_lib}")  # tcpvxi-host loads it by its SONAME
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "${kv_same_lib}, python3")
set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS "python3-pyvisa")
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
# The loader cache is refreshed through dpkg's ldconfig trigger (CPack also
# adds maintainer scripts that call ldconfig; lintian only warns of those).
file(WRITE ${CMAKE_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/debian/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_SOURCE_IGNORE_FILES "/build/;/\\\\.git/")
include(CPack)
