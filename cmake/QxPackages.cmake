# Debian packages, one a component of QxInstall.cmake, by `cpack -G DEB` (script/package).

set(CPACK_PACKAGE_NAME qxdict)
set(CPACK_PACKAGE_VENDOR "The libqxdict developers")
set(CPACK_PACKAGE_CONTACT "The libqxdict developers <libqxdict@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL libqxlib1 libqxdict1 libqxdict-dev qxdict-tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
# dpkg-shlibdeps finds the base library in the other package, which is not installed.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/lib")

set(about "Byte-keyed hash tables, perfect-hash dictionaries in mapped files,
ordered integer trees and an expiring cache, as plain records and
functions for C and C++.
.
")
set(CPACK_COMPONENT_LIBQXLIB1_DESCRIPTION
    "${about}This package has the base library: memory, arrays, channels, messages\nand threads.")
set(CPACK_COMPONENT_LIBQXDICT1_DESCRIPTION "${about}This package has the library.")
set(CPACK_COMPONENT_LIBQXDICT-DEV_DESCRIPTION "${about}This package has what programs are built with.")
set(CPACK_COMPONENT_QXDICT-TOOLS_DESCRIPTION
    "${about}This package has qxdict, which looks into their files, checks them and\nmakes them.")

# Beside what is installed elsewhere too: a changelog and the terms, and a manual page that is packed.
find_program(QX_GZIP gzip REQUIRED)
foreach(component IN ITEMS libqxlib1 libqxdict1 libqxdict-dev qxdict-tools)
  string(TOUPPER "${component}" COMPONENT)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME ${component})
  install(FILES "${PROJECT_SOURCE_DIR}/cmake/debian/copyright" DESTINATION "share/doc/${component}"
          COMPONENT ${component})
  install(FILES "${PROJECT_BINARY_DIR}/debian/changelog.gz" DESTINATION "share/doc/${component}"
          COMPONENT ${component})
endforeach()
foreach(file IN ITEMS cmake/debian/changelog docs/man/qxdict.1)
  get_filename_component(name "${file}" NAME)
  file(MAKE_DIRECTORY "${PROJECT_BINARY_DIR}/debian")
  execute_process(COMMAND "${QX_GZIP}" -9nc "${PROJECT_SOURCE_DIR}/${file}"
                  OUTPUT_FILE "${PROJECT_BINARY_DIR}/debian/${name}.gz" COMMAND_ERROR_IS_FATAL ANY)
endforeach()
foreach(COMPONENT IN ITEMS LIBQXLIB1 LIBQXDICT1)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/cmake/debian/triggers")
endforeach()

set(same_version "(= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_LIBQXDICT1_PACKAGE_DEPENDS "libqxlib1 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_LIBQXDICT-DEV_PACKAGE_DEPENDS "libqxdict1 ${same_version}, libqxlib1 ${same_version}")
set(CPACK_DEBIAN_LIBQXDICT-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LIBQXDICT-DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_QXDICT-TOOLS_PACKAGE_DEPENDS "libqxdict1 (>= ${PROJECT_VERSION}), libqxlib1 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_QXDICT-TOOLS_PACKAGE_SECTION utils)

include(CPack)
