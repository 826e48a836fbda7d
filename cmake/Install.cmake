# Installation in four components: helper, library, development, client. The target
# `installed_data`, part of `all`, runs a small program that writes the files made from the
# programs' tables (policies, completions, lists of the manual).
#
# The default prefix is /usr, where systemd and polkit look.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "where to install" FORCE)
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Directories that `corvalenctl uninstall` searches.
target_compile_definitions(corvalen_cli PRIVATE
  CORVALEN_PREFIX="${CMAKE_INSTALL_PREFIX}"
  CORVALEN_LIBEXEC_DIRECTORY="${CMAKE_INSTALL_FULL_LIBEXECDIR}"
  CORVALEN_MANUAL_DIRECTORY="${CMAKE_INSTALL_FULL_MANDIR}")

# Directory of the translations of corvalenctl.
target_compile_definitions(corvalenctl PRIVATE
  CORVALEN_LOCALE_DIRECTORY="${CMAKE_INSTALL_FULL_LOCALEDIR}")

set(service net.corvalen.system.privilegedhelper-kvx)
set(data ${CMAKE_BINARY_DIR}/installed)
set(resources ${PROJECT_SOURCE_DIR}/resources)
file(MAKE_DIRECTORY ${data}/policies)

add_executable(corvalen-installed-data packaging/installed_data.cpp)
target_link_libraries(corvalen-installed-data PRIVATE corvalen_cli corvalen_platform)
# CMake runs a command through CMAKE_CROSSCOMPILING_EMULATOR only if its first word is a target's
# name, not a file.
set(writer corvalen-installed-data)
add_custom_command(OUTPUT ${data}/written
  COMMAND ${writer} policies ${data}/policies
  COMMAND ${writer} bash ${data}/corvalenctl.bash
  COMMAND ${writer} zsh ${data}/_corvalenctl
  COMMAND ${writer} fish ${data}/corvalenctl.fish
  COMMAND ${writer} manual-commands ${data}/manual-commands
  COMMAND ${writer} manual-operations ${data}/manual-operations
  COMMAND ${CMAKE_COMMAND} -E touch ${data}/written
  DEPENDS corvalen-installed-data VERBATIM)
set(installed_files ${data}/written)

configure_file(${resources}/${service}.service.in ${data}/${service}.service @ONLY)
configure_file(${resources}/${service}.socket ${data}/${service}.socket COPYONLY)

# The manual pages carry the release date, from the first entry of the changelog.
file(STRINGS ${PROJECT_SOURCE_DIR}/debian/changelog release_line REGEX "^ -- " LIMIT_COUNT 1)
string(REGEX REPLACE ".*>  " "" release_date "${release_line}")

# corvalen_manual(<source> <page> <component> [<list>]): a manual page, with a generated list at its
# end.
find_program(SCDOC scdoc)
function(corvalen_manual source page component list)
  if(NOT SCDOC)
    return()
  endif()
  string(REGEX MATCH "[0-9]$" section ${page})
  if(list)
    set(list "'${data}/${list}'")
  endif()
  add_custom_command(OUTPUT ${data}/${page}
    COMMAND sh -c "cat '${resources}/${source}' ${list} | SOURCE_DATE_EPOCH=$(date -d '${release_date}' +%s) '${SCDOC}' >'${data}/${page}'"
    DEPENDS ${resources}/${source} ${data}/written VERBATIM)
  set(installed_files ${installed_files} ${data}/${page} PARENT_SCOPE)
  install(FILES ${data}/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
    COMPONENT ${component})
endfunction()
corvalen_manual(privilegedhelper-kvx.8.scd ${service}.8 helper "")
corvalen_manual(corvalenctl.1.scd corvalenctl.1 client manual-commands)
corvalen_manual(corvalen-protocol.7.scd corvalen-protocol.7 development manual-operations)
add_custom_target(installed_data ALL DEPENDS ${installed_files})

install(PROGRAMS $<TARGET_FILE:privilegedhelper-kvx> DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}
  RENAME ${service} COMPONENT helper)
install(FILES ${data}/${service}.service ${data}/${service}.socket
  DESTINATION lib/systemd/system COMPONENT helper)
# journalctl would take the middle of a name with two dots for a language.
install(FILES ${resources}/corvalen.catalog
  DESTINATION lib/systemd/catalog COMPONENT helper)
install(DIRECTORY ${data}/policies/ DESTINATION share/polkit-1/actions COMPONENT helper)

install(TARGETS corvalenctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT client)
install(FILES ${data}/corvalenctl.bash RENAME corvalenctl
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT client)
install(FILES ${data}/_corvalenctl
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT client)
install(FILES ${data}/corvalenctl.fish
  DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT client)

set(headers ${CMAKE_INSTALL_INCLUDEDIR}/corvalenclient)
install(TARGETS corvalenclient EXPORT corvalenclient LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  COMPONENT library NAMELINK_COMPONENT development INCLUDES DESTINATION ${headers})
install(DIRECTORY src/client/include/corvalen src/foundation/include/corvalen
  DESTINATION ${headers} COMPONENT development)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/corvalenclient)
install(EXPORT corvalenclient NAMESPACE corvalen:: FILE corvalenclient-config.cmake
  DESTINATION ${package} COMPONENT development)
write_basic_package_version_file(${data}/corvalenclient-config-version.cmake
  COMPATIBILITY SameMajorVersion)
configure_file(${resources}/corvalenclient.pc.in ${data}/corvalenclient.pc @ONLY)
install(FILES ${data}/corvalenclient-config-version.cmake DESTINATION ${package}
  COMPONENT development)
install(FILES ${data}/corvalenclient.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)
