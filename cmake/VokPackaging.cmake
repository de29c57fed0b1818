# Installed CMake package and Debian packages. Included by the top-level CMakeLists.txt once every
# installed target exists.
#
# Install components: runtime (the shared libraries), dev (headers, namelinks, pkg-config and
# CMake files), tools (the command-line programs), demo (vok-demo, installed by `cmake --install`
# but not packaged: it shows the framework working beside a private bus and needs the source
# tree's scripts to do so).

include(CMakePackageConfigHelpers)

# ---- CMake package: find_package(vok CONFIG) ----
set(VOK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vok)
install(EXPORT vokTargets NAMESPACE vok:: DESTINATION ${VOK_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/vokConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/vokConfig.cmake
                              INSTALL_DESTINATION ${VOK_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/vokConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/vokConfig.cmake ${CMAKE_BINARY_DIR}/vokConfigVersion.cmake
        DESTINATION ${VOK_CMAKE_DIR} COMPONENT dev)

# The examples, for libvok-dev: each builds on its own against the installed library.
install(DIRECTORY ${CMAKE_SOURCE_DIR}/examples/
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libvok-dev/examples COMPONENT dev
        PATTERN "build*" EXCLUDE)

# ---- Debian packages: cpack -G DEB (see `make deb`) ----
set(VOK_DEB_RUNTIME libvok${PROJECT_VERSION_MAJOR})
set(VOK_DEB_COMPONENTS runtime dev tools)
set(VOK_DEB_PACKAGES ${VOK_DEB_RUNTIME} libvok-dev vok-tools)
set(VOK_DEB_MAINTAINER "vok developers <vok-dev@orvex.example>")

# Debian wants a copyright file and a compressed changelog in every package's doc directory.
# They are installed only when a component is asked for by name, as cpack does.
set(VOK_DEB_DOC_DIR ${CMAKE_BINARY_DIR}/debian-doc)
# The date honours SOURCE_DATE_EPOCH, for packages that rebuild bit for bit.
string(TIMESTAMP VOK_DEB_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
string(CONCAT VOK_DEB_CHANGELOG
       "vok (${PROJECT_VERSION}) unstable; urgency=medium\n\n"
       "  * Release ${PROJECT_VERSION}.\n\n"
       " -- ${VOK_DEB_MAINTAINER}  ${VOK_DEB_DATE}\n")
file(WRITE ${VOK_DEB_DOC_DIR}/changelog "${VOK_DEB_CHANGELOG}")
execute_process(COMMAND gzip -9nf ${VOK_DEB_DOC_DIR}/changelog COMMAND_ERROR_IS_FATAL ANY)
foreach(component package IN ZIP_LISTS VOK_DEB_COMPONENTS VOK_DEB_PACKAGES)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${VOK_DEB_DOC_DIR}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
          COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vok)
set(CPACK_PACKAGE_VENDOR "vok developers")
set(CPACK_PACKAGE_CONTACT "${VOK_DEB_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tools link the libraries of the runtime package, which no installed package provides yet:
# dpkg-shlibdeps finds them in the build tree, and the component dependency below names them.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "")
foreach(library vok ztlog kelvra)
  get_target_property(dir ${library} BINARY_DIR)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${dir})
endforeach()
# A cross build packages for the target's architecture, and dpkg-shlibdeps takes the system
# libraries from the sysroot (`make deb-armhf` also points it at a dpkg database of the sysroot's
# packages, made by cmake/sysroot-dpkg-db.sh, so that it finds their shlibs and symbols files).
if(CMAKE_CROSSCOMPILING)
  execute_process(COMMAND dpkg-architecture -t ${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
                  OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE
                  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
       ${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}
       ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Only the runtime package holds shared objects: its shlibs file lets other packages depend on it.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

# The first line of each description is the package's synopsis. CPackDeb puts the project-wide
# summary in front of it unless that summary is CPack's own default, so it is set to that.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CMAKE_PROJECT_NAME} built using CMake")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${VOK_DEB_RUNTIME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# dpkg runs ldconfig through this trigger when the libraries come or go.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
string(CONCAT CPACK_COMPONENT_RUNTIME_DESCRIPTION
       "framework library for long-running system daemons\n"
       "vok hosts a daemon's service blades on threads of their own, passes messages\n"
       "between them, and runs GLib event loops with timers, alarms and calls on the\n"
       "platform bus. This package holds the shared libraries: libvok, the logging\n"
       "library libztlog and the bus library libkelvra.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvok-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libglib2.0-dev, libjson-c-dev")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
string(CONCAT CPACK_COMPONENT_DEV_DESCRIPTION
       "framework library for long-running system daemons - development files\n"
       "Headers of vok, libztlog and libkelvra, with pkg-config files, the CMake\n"
       "package (find_package(vok CONFIG) gives vok::vok, vok::ztlog, vok::kelvra)\n"
       "and example daemons in /usr/share/doc/libvok-dev/examples.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vok-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
string(CONCAT CPACK_COMPONENT_TOOLS_DESCRIPTION
       "framework library for long-running system daemons - tools\n"
       "kv-call calls a service on the platform bus, vok-console exercises the\n"
       "message passing by hand, vokctl looks into running daemons, and vok-powerd\n"
       "is the reference power service (with its systemd unit).")

include(CPack)
