# The Debian packages. Files that only they contain (notices, changelog) are installed when SORVEX_DEBIAN_PACKAGES is
# on.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime host agent configserver development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE communicationapi)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(debian_version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(host_package "libsorvexcommon${PROJECT_VERSION_MAJOR}")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME communicationapi)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION net)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "network module of the Sorvex log-collection agent
The module that an agent loads for all network traffic: the connection to the
configuration server, and the sockets that forward events to syslog receivers
over TCP, TLS and UDP.")

set(CPACK_DEBIAN_HOST_PACKAGE_NAME "${host_package}")
set(CPACK_DEBIAN_HOST_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_HOST_PACKAGE_CONTROL_EXTRA
  "${CMAKE_CURRENT_BINARY_DIR}/debian/host/shlibs;${CMAKE_CURRENT_SOURCE_DIR}/debian/host/triggers")
set(CPACK_DEBIAN_HOST_DESCRIPTION "host framework of the Sorvex log-collection agent
The library that an agent and its modules share: services, logging, parameters,
payload builders and the interfaces between them.")

set(CPACK_DEBIAN_AGENT_PACKAGE_NAME sorvex-agent)
set(CPACK_DEBIAN_AGENT_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_AGENT_PACKAGE_DEPENDS "communicationapi (= ${debian_version}), adduser")
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA
  "${CMAKE_CURRENT_SOURCE_DIR}/debian/agent/postinst"
  "${CMAKE_CURRENT_SOURCE_DIR}/debian/agent/prerm"
  "${CMAKE_CURRENT_SOURCE_DIR}/debian/agent/postrm")
set(CPACK_DEBIAN_AGENT_DESCRIPTION "Sorvex log-collection agent
It registers with a configuration server, reports its status, fetches its
configuration and patches, and forwards log lines to syslog receivers over TCP,
TLS and UDP.")

set(CPACK_DEBIAN_CONFIGSERVER_PACKAGE_NAME sorvex-configserver)
set(CPACK_DEBIAN_CONFIGSERVER_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_CONFIGSERVER_DESCRIPTION "configuration server for Sorvex agents
It serves the agents of small installations from one folder of tokens,
configurations and patches. To test agents, it can misbehave on request.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME communicationapi-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "communicationapi (= ${debian_version}), ${host_package} (= ${debian_version}), libace-dev, libace-ssl-dev, libssl-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "network module of the Sorvex log-collection agent, for developers
Headers of the module and of its host framework, a CMake package and a
pkg-config file.")

# What other packages must depend on for the library.
file(WRITE "${CMAKE_CURRENT_BINARY_DIR}/debian/host/shlibs"
  "libSorvexCommon ${PROJECT_VERSION_MAJOR} ${host_package} (>= ${PROJECT_VERSION})\n")
# A package's dependencies are known once its files exist: PrepareStage.cmake sets them.
set(CPACK_SORVEX_SHLIBS "${CMAKE_CURRENT_BINARY_DIR}/debian/host/shlibs")
set(CPACK_SORVEX_LIBDIR "${CMAKE_INSTALL_LIBDIR}")

if(NOT SORVEX_DEBIAN_PACKAGES)
  return()
endif()

sorvex_write_notices("${CMAKE_CURRENT_BINARY_DIR}/debian/copyright" libspdlog-dev libfmt-dev libcli11-dev)
set(DEBIAN_VERSION "${debian_version}")
# The time of SOURCE_DATE_EPOCH, if set.
string(TIMESTAMP DEBIAN_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(debian/changelog.in debian/changelog.Debian @ONLY)

sorvex_compress("${CMAKE_CURRENT_BINARY_DIR}/debian/changelog.Debian" "${CMAKE_CURRENT_BINARY_DIR}/debian")
sorvex_compress("${PROJECT_SOURCE_DIR}/CHANGELOG.md" "${CMAKE_CURRENT_BINARY_DIR}/debian")

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER "${component}" name)
  set(documents "${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${name}_PACKAGE_NAME}")
  install(FILES "${CMAKE_CURRENT_BINARY_DIR}/debian/copyright" "${CMAKE_CURRENT_BINARY_DIR}/debian/changelog.Debian.gz"
    DESTINATION "${documents}" COMPONENT ${component})
  install(FILES "${CMAKE_CURRENT_BINARY_DIR}/debian/CHANGELOG.md.gz" DESTINATION "${documents}" COMPONENT ${component}
    RENAME changelog.gz)
endforeach()
install(FILES "${PROJECT_SOURCE_DIR}/apps/agent/systemd/sorvex-agent.service"
  DESTINATION lib/systemd/system COMPONENT agent)
install(FILES "${PROJECT_SOURCE_DIR}/docs/administration.md" "${PROJECT_SOURCE_DIR}/docs/configuration.md"
  "${PROJECT_SOURCE_DIR}/docs/operations.md" DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/sorvex-agent" COMPONENT agent)
install(FILES "${PROJECT_SOURCE_DIR}/docs/embedding.md"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/communicationapi-dev" COMPONENT development)
