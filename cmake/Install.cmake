# What an installation holds, as components: `nodelink` (the programs), `platform` (the reference
# platform), `development` (the object layer as a library) and `devcloud`.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The appliance's layout: the programs know these paths, so no prefix moves them.
set(appliance /usr/kivo)
set(private_mode DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)

# Installs the manual pages and completion files of the programs in ARGN, and of their file formats.
function(install_documents component)
  foreach(name ${ARGN})
    file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/${name}.[58])
    foreach(page ${pages})
      string(REGEX MATCH "[0-9]$" section ${page})
      install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
    endforeach()
    file(GLOB completion CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/packaging/completion/${name})
    install(FILES ${completion} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
      COMPONENT ${component})
  endforeach()
endfunction()

install(TARGETS nodelink nodelink-login RUNTIME DESTINATION ${appliance}/bin COMPONENT nodelink)
install(TARGETS nodelink-http RUNTIME DESTINATION ${appliance}/lib COMPONENT nodelink)
install(FILES data/pkce_login.conf data/pkce_register.conf
  DESTINATION ${appliance}/etc.defaults/veltrix-account/config COMPONENT nodelink)
install(DIRECTORY DESTINATION ${appliance}/etc/veltrix-account/private ${private_mode} COMPONENT nodelink)
install_documents(nodelink nodelink nodelink-login user.conf)

install(TARGETS kivohosnotify RUNTIME DESTINATION ${appliance}/bin COMPONENT platform)
install(TARGETS kivo-cloudservice RUNTIME DESTINATION ${appliance}/lib COMPONENT platform)
install(DIRECTORY DESTINATION ${appliance}/lib/plugin COMPONENT platform)
install(DIRECTORY DESTINATION ${appliance}/var COMPONENT platform)
install(DIRECTORY DESTINATION ${appliance}/etc/cloudservice ${private_mode} COMPONENT platform)

install(TARGETS zomi-devcloud RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT devcloud)
install_documents(devcloud zomi-devcloud)

# The object layer, and the reference platform to stand behind it.
set(header_folder ${CMAKE_INSTALL_INCLUDEDIR}/nodelink)
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/nodelink)
foreach(header
    account/account_data.h account/account_service.h account/record_keys.h account/server_info.h account/user.h
    core/backtrace.h core/error_code.h core/zomi_exception.h
    pkce/account_pkce_service.h pkce/pkce_client.h pkce/pkce_config.h)
  get_filename_component(room ${header} DIRECTORY)
  install(FILES src/${header} DESTINATION ${header_folder}/${room} COMPONENT development)
endforeach()

set_target_properties(nodelink_lib PROPERTIES EXPORT_NAME object_layer)
install(TARGETS nodelink_lib nodelink_base hos_api hos_linux hos_text EXPORT nodelink-targets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} ${header_folder})
install(EXPORT nodelink-targets NAMESPACE nodelink:: DESTINATION ${package_folder}
  COMPONENT development)

configure_file(cmake/nodelink.pc.in nodelink.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/nodelink.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/nodelink-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES cmake/nodelink-config.cmake ${PROJECT_BINARY_DIR}/nodelink-config-version.cmake
  DESTINATION ${package_folder} COMPONENT development)
