# Debian packages, one for each component; scripts/package makes them.
set(packages libperix0 libperix-dev perixctl perix-devservice perix-console)
set(exact "(= ${PROJECT_VERSION})")

# describe(PACKAGE SECTION SUMMARY TEXT [FIELD VALUE]...)
function(describe package section summary text)
  string(TOUPPER ${package} component)
  set(CPACK_COMPONENT_${component}_DESCRIPTION "${summary}\n${text}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${component}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_DEBIAN_${component}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  while(ARGN)
    list(POP_FRONT ARGN field value)
    set(CPACK_DEBIAN_${component}_PACKAGE_${field} "${value}" PARENT_SCOPE)
  endwhile()
endfunction()

describe(libperix0 libs "client library of the peripheral service"
  "Connects a desktop client to the local service that redirects devices\ninto remote desktops."
  CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/triggers)
describe(libperix-dev libdevel "client library of the peripheral service (development files)"
  "Headers, pkg-config and CMake files of libperix, and the library for the\ntests of clients."
  DEPENDS "libperix0 ${exact}" RECOMMENDS "dbus-daemon, perix-devservice"
  CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/triggers)
describe(perixctl utils "command line of the peripheral service"
  "Lists and connects devices, printers and desktops, and shows the events\nof the service."
  RECOMMENDS "dbus-daemon, perix-devservice" SUGGESTS bash-completion)
describe(perix-devservice devel "peripheral service for development"
  "Plays the peripheral service from a scenario, without touching a device.\nFor developers of clients."
  RECOMMENDS dbus-daemon)
describe(perix-console utils "window on the peripheral service"
  "Shows desktops, devices, printers and events, and draws what a pen sends."
  DEPENDS "libperix0 ${exact}")

# The texts that each package carries.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
# The owner of the sources puts an address here.
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Perix maintainers <perix@example.org>")
configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog.in changelog @ONLY)
foreach(package ${packages})
  install(FILES copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${package})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL ${packages})
if(NOT TARGET perix-console)
  list(REMOVE_ITEM CPACK_COMPONENTS_ALL perix-console)
endif()
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/perix/apps/local/perixproxy)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/compress.cmake)
include(CPack)
