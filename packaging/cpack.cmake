# The Debian packages of a Release build: `cpack` in the build directory makes ip6dns and ip6dns-dbgsym.
# The same sources make the same bytes wherever they are built: no path and no time of the build gets into them.
set(packaging ${CMAKE_CURRENT_LIST_DIR})
set(staging ${PROJECT_BINARY_DIR}/packaging)
set(triplet ${CMAKE_CXX_LIBRARY_ARCHITECTURE})
set(plugin_dir lib/${triplet}/dac)

foreach(target ip6dns ip6dns_parts dac_check dachost dachost_parts)
  target_compile_options(${target} PRIVATE $<$<CONFIG:Release>:-g
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}=/usr/src/ip6dns -ffile-prefix-map=${PROJECT_BINARY_DIR}=/usr/src/ip6dns>)
endforeach()
target_link_options(dachost PRIVATE LINKER:--as-needed LINKER:-z,relro LINKER:-z,now)

# ---------------------------------------------------------------- what goes where

# staged(FILE SOURCE COMMAND ...): a file that is made for the packages alone, in the staging directory.
add_custom_target(staged ALL)
function(staged file source)
  string(MAKE_C_IDENTIFIER staged_${file} target)
  add_custom_command(OUTPUT ${staging}/${file} DEPENDS ${source} VERBATIM ${ARGN})
  add_custom_target(${target} DEPENDS ${staging}/${file})
  add_dependencies(staged ${target})
endfunction()

# shipped(TARGET PROGRAMS|FILES DIRECTORY): the target without its symbols, and the symbols where debuggers look for them.
function(shipped target kind directory)
  set(file $<TARGET_FILE_NAME:${target}>)
  set(symbols ${staging}/${target}.debug)
  staged(${target} ${target}
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}> ${symbols}
    COMMAND ${CMAKE_OBJCOPY} --strip-unneeded -R .comment --add-gnu-debuglink=${symbols} $<TARGET_FILE:${target}>
      ${staging}/${target})
  install(${kind} ${staging}/${target} RENAME ${file} DESTINATION ${directory} COMPONENT main)
  install(FILES ${symbols} DESTINATION lib/debug/usr/${directory} COMPONENT dbgsym)
endfunction()

# manual(FILE DIRECTORY): compressed, as packages carry them, with no time in the header.
function(manual file directory)
  cmake_path(GET file FILENAME name)
  staged(${name}.gz ${file} COMMAND sh -c "gzip -9n <\"$1\" >\"$2\"" sh ${file} ${staging}/${name}.gz)
  install(FILES ${staging}/${name}.gz DESTINATION ${directory} COMPONENT main)
endfunction()

shipped(ip6dns FILES ${plugin_dir})
shipped(dac_check FILES ${plugin_dir})  # where it finds the plug-in; with dac.h, for host authors
shipped(dachost PROGRAMS bin)
manual(${packaging}/changelog share/doc/ip6dns)
file(GLOB manuals CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/doc/*.[1-9])
foreach(file ${manuals})
  string(REGEX REPLACE ".*\\." share/man/man section ${file})
  manual(${file} ${section})
endforeach()

configure_file(${packaging}/dachost@.service.in ${staging}/dachost@.service @ONLY)
configure_file(${packaging}/ip6dns.pc.in ${staging}/ip6dns.pc @ONLY)
install(FILES ${PROJECT_SOURCE_DIR}/driver/dac.h DESTINATION include/ip6dns COMPONENT main)
install(FILES ${staging}/ip6dns.pc DESTINATION lib/${triplet}/pkgconfig COMPONENT main)
install(FILES ${staging}/dachost@.service DESTINATION /lib/systemd/system COMPONENT main)
install(FILES ${packaging}/ip6dns.conf DESTINATION /etc/ip6dns COMPONENT main)
install(FILES ${packaging}/completion/dachost DESTINATION share/bash-completion/completions COMPONENT main)
install(FILES ${packaging}/ip6dns.conf ${packaging}/nsupdate.conf ${PROJECT_SOURCE_DIR}/doc/snippet.c
  DESTINATION share/doc/ip6dns/examples COMPONENT main)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/ DESTINATION share/doc/ip6dns/examples COMPONENT main
  USE_SOURCE_PERMISSIONS)
file(CREATE_LINK ip6dns ${staging}/ip6dns-dbgsym SYMBOLIC)
install(FILES ${staging}/ip6dns-dbgsym DESTINATION share/doc COMPONENT dbgsym)

# ---------------------------------------------------------------- how it is wrapped

file(STRINGS ${packaging}/changelog release LIMIT_COUNT 1)
if(NOT release MATCHES "^ip6dns \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "packaging/changelog begins with '${release}', driver/dac.h has version ${PROJECT_VERSION}")
endif()

set(architecture_x86_64 amd64)
set(architecture_aarch64 arm64)
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL main dbgsym)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "ip6dns maintainers <maintainers@ip6dns.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "host driver that publishes public IPv6 addresses")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PRE_BUILD_SCRIPTS ${packaging}/umask.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${packaging}/umask.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${architecture_${CMAKE_SYSTEM_PROCESSOR}})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_MAIN_PACKAGE_NAME ip6dns)
set(CPACK_DEBIAN_MAIN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_MAIN_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 11)")
set(CPACK_DEBIAN_MAIN_PACKAGE_SUGGESTS "bind9-dnsutils, python3-paho-mqtt")  # what the two scripts need
set(CPACK_DEBIAN_MAIN_PACKAGE_CONTROL_EXTRA ${packaging}/conffiles)
set(CPACK_COMPONENT_MAIN_DESCRIPTION
"libip6dns.so is a driver for a host data-acquisition platform. It publishes
the machine's public IPv6 addresses as a tag value: at once when they change,
every two minutes when they do not. It opens no connection.
.
With it come its header and a checking layer for host authors, and dachost, a
host for the command line and for systemd.")

set(CPACK_DEBIAN_DBGSYM_PACKAGE_NAME ip6dns-dbgsym)
set(CPACK_DEBIAN_DBGSYM_PACKAGE_SECTION debug)
set(CPACK_DEBIAN_DBGSYM_PACKAGE_DEPENDS "ip6dns (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DBGSYM_DESCRIPTION 
"Debug symbols of libip6dns.so and dachost. Debuggers find them by themselves.")

set(CPACK_PROJECT_CONFIG_FILE ${staging}/project.cmake)
configure_file(${packaging}/project.cmake.in ${CPACK_PROJECT_CONFIG_FILE} @ONLY)
include(CPack)
