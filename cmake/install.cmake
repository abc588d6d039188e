# What `cmake --install` lays out for a recorder's root file system (README "Installing on a
# recorder"). velmar reads fixed device paths (/etc/velmar, /app/diskaccess, /mnt/sd1, ...),
# so the configuration goes to those absolute places whatever the prefix; the programs, the
# systemd unit and the ftpget/ftpput links go under the prefix: /usr, the recorder's, in place
# of CMake's /usr/local, also in a build directory configured before these rules (once; a
# prefix set afterwards, or `cmake --install --prefix`, wins).
if(NOT DEFINED CACHE{velmar_install_prefix_defaulted})
  if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT OR CMAKE_INSTALL_PREFIX STREQUAL "/usr/local")
    set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Install prefix (the recorder's /usr)" FORCE)
  endif()
  set(velmar_install_prefix_defaulted ON CACHE INTERNAL "")
endif()
include(GNUInstallDirs)

# Component "recorder" (the default install): the service, which is also the control tool
# under the name velmarctl (a link, laid out by cmake/install-device.cmake).
install(TARGETS velmar RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT recorder)
# Component "tools", only when asked for (--component tools): the operator's list signer and
# the recording test tools, which a recorder does not need.
foreach(tool velmar-sign velmar-mkrec velmar-avi)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools
            EXCLUDE_FROM_ALL)
  endif()
endforeach()

# Where the device's busybox lies: the install makes ftpget and ftpput links to it in
# <prefix>/libexec/velmar, which the start script and the unit put first on velmar's PATH.
# Empty: no links; velmar then finds ftpget and ftpput on the device's own PATH.
set(VELMAR_TARGET_BUSYBOX "/bin/busybox" CACHE STRING
    "busybox on the recorder, for the ftpget/ftpput links (empty: none)")

# The rest is decided at install time, when --prefix and DESTDIR are known.
install(CODE "set(VELMAR_SOURCE_DIR \"${CMAKE_SOURCE_DIR}\")
set(VELMAR_BINARY_DIR \"${CMAKE_BINARY_DIR}\")
set(VELMAR_TARGET_BUSYBOX \"${VELMAR_TARGET_BUSYBOX}\")
set(VELMAR_SBINDIR \"${CMAKE_INSTALL_SBINDIR}\")
set(VELMAR_BINDIR \"${CMAKE_INSTALL_BINDIR}\")
set(VELMAR_LIBEXECDIR \"${CMAKE_INSTALL_LIBEXECDIR}\")" COMPONENT recorder)
install(SCRIPT ${CMAKE_SOURCE_DIR}/cmake/install-device.cmake COMPONENT recorder)
