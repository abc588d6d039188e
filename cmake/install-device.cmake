# Install-time part of cmake/install.cmake: the start script, the systemd unit, the velmarctl,
# ftpget and ftpput links and the example configuration. Paths given to file(INSTALL) are the
# device's; DESTDIR is put before them by file(INSTALL) itself.
set(prefix "${CMAKE_INSTALL_PREFIX}")
set(helperdir "${prefix}/${VELMAR_LIBEXECDIR}/velmar")
set(staging "${VELMAR_BINARY_DIR}/install-staging")
file(REMOVE_RECURSE "${staging}")
file(MAKE_DIRECTORY "${staging}")

# The start script and the unit, with the paths of this prefix.
foreach(pair "S80velmar.in|S80velmar" "velmar.service.in|velmar.service")
  string(REPLACE "|" ";" pair "${pair}")
  list(GET pair 0 template)
  list(GET pair 1 name)
  file(READ "${VELMAR_SOURCE_DIR}/dist/${template}" text)
  string(REPLACE "@SBINDIR@" "${prefix}/${VELMAR_SBINDIR}" text "${text}")
  string(REPLACE "@HELPERDIR@" "${helperdir}" text "${text}")
  file(WRITE "${staging}/${name}" "${text}")
endforeach()
set(exec_perms OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
               WORLD_EXECUTE)
file(INSTALL "${staging}/S80velmar" DESTINATION /etc/init.d FILE_PERMISSIONS ${exec_perms})
file(INSTALL "${staging}/velmar.service" DESTINATION "${prefix}/lib/systemd/system")

# velmarctl: a link to velmar, relative so that it holds under any DESTDIR.
file(RELATIVE_PATH velmar_from_bin "${prefix}/${VELMAR_BINDIR}" "${prefix}/${VELMAR_SBINDIR}/velmar")
file(CREATE_LINK "${velmar_from_bin}" "${staging}/velmarctl" SYMBOLIC)
file(INSTALL "${staging}/velmarctl" DESTINATION "${prefix}/${VELMAR_BINDIR}")

if(NOT VELMAR_TARGET_BUSYBOX STREQUAL "")
  foreach(applet ftpget ftpput)
    file(CREATE_LINK "${VELMAR_TARGET_BUSYBOX}" "${staging}/${applet}" SYMBOLIC)
    file(INSTALL "${staging}/${applet}" DESTINATION "${helperdir}")
  endforeach()
endif()

# The example configuration, each file only where the target has none: a recorder's
# configuration is its own (device number, servers, imported archives), and /app/diskaccess
# is the firmware's tool where it has one. A package maker installs into an empty DESTDIR and
# marks these as configuration files.
function(velmar_install_example source dest_dir)
  cmake_parse_arguments(arg "" "" "PERMISSIONS" ${ARGN})
  get_filename_component(name "${source}" NAME)
  set(there "$ENV{DESTDIR}${dest_dir}/${name}")
  if(EXISTS "${there}" OR IS_SYMLINK "${there}")
    message(STATUS "Keeping: ${there} (the example is not installed over it)")
    return()
  endif()
  if(arg_PERMISSIONS)
    file(INSTALL "${source}" DESTINATION "${dest_dir}" FILE_PERMISSIONS ${arg_PERMISSIONS})
  else()
    file(INSTALL "${source}" DESTINATION "${dest_dir}")
  endif()
endfunction()

set(profile "${VELMAR_SOURCE_DIR}/profile")
file(GLOB config_files "${profile}/etc/velmar/config/*.xml")
foreach(f ${config_files})
  velmar_install_example("${f}" /etc/velmar/config)
endforeach()
velmar_install_example("${profile}/etc/velmar/version.xml" /etc/velmar)
velmar_install_example("${profile}/etc/velmar/ftps.conf" /etc/velmar)
# The sandbox profile's recorder.xml describes plain directories under a sandbox root; the
# device's describes mounted cards.
velmar_install_example("${VELMAR_SOURCE_DIR}/dist/recorder.xml" /etc/velmar)
velmar_install_example("${profile}/app/diskaccess" /app PERMISSIONS ${exec_perms})
