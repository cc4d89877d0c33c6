# What `cmake --install` lays down, below the prefix:
#
#   include/qxdict/        the public headers, in the directories in which they include one another
#   lib/                   both libraries with their sonames
#   lib/cmake/qxdict/      for find_package(qxdict): targets qxdict::qxdict and qxdict::qxlib
#   lib/pkgconfig/         qxdict.pc, qxlib.pc
#   bin/, share/man/       the program qxdict, when it is built, and its manual page
#
# and the target `uninstall`, which takes it all away again. Nothing installed tells where it was built or installed: the
# whole may be moved.

include(CMakePackageConfigHelpers)

set(runtime LIBRARY COMPONENT libqxlib1 NAMELINK_COMPONENT libqxdict-dev)
install(TARGETS qxlib EXPORT qxdictTargets ${runtime})
set(runtime LIBRARY COMPONENT libqxdict1 NAMELINK_COMPONENT libqxdict-dev)
install(TARGETS qxdict EXPORT qxdictTargets ${runtime})
# libqxdict finds the base library beside itself, wherever that is.
set_target_properties(qxdict PROPERTIES INSTALL_RPATH "$ORIGIN")

foreach(header IN LISTS QXDICT_PUBLIC_HEADERS QXDICT_PUBLIC_CXX_HEADERS)
  get_filename_component(directory "${header}" DIRECTORY)
  install(FILES "${PROJECT_SOURCE_DIR}/${header}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/qxdict/${directory}"
          COMPONENT libqxdict-dev)
endforeach()

set(config_directory "${CMAKE_INSTALL_LIBDIR}/cmake/qxdict")
configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/qxdictConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/cmake/qxdictConfig.cmake" INSTALL_DESTINATION "${config_directory}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/cmake/qxdictConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/cmake/qxdictConfig.cmake" "${PROJECT_BINARY_DIR}/cmake/qxdictConfigVersion.cmake"
        DESTINATION "${config_directory}" COMPONENT libqxdict-dev)
install(EXPORT qxdictTargets NAMESPACE qxdict:: DESTINATION "${config_directory}" COMPONENT libqxdict-dev)

# The way from the .pc files back to the prefix.
file(RELATIVE_PATH QXDICT_PC_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
set(packages qxdict)
if(QXDICT_BASE_LIBRARY)
  set(QXDICT_PC_REQUIRES "")
  set(QXDICT_PC_LIBRARIES "-lqxdict ${QXDICT_BASE_LIBRARY}")
else()
  set(QXDICT_PC_REQUIRES "qxlib = ${PROJECT_VERSION}")
  set(QXDICT_PC_LIBRARIES "-lqxdict")
  list(APPEND packages qxlib)
endif()
foreach(package IN LISTS packages)
  configure_file("${CMAKE_CURRENT_LIST_DIR}/${package}.pc.in" "${PROJECT_BINARY_DIR}/cmake/${package}.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/cmake/${package}.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
          COMPONENT libqxdict-dev)
endforeach()

if(TARGET qxdict_tool)
  install(TARGETS qxdict_tool RUNTIME COMPONENT qxdict-tools)
  file(RELATIVE_PATH way_to_libraries "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  set_target_properties(qxdict_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${way_to_libraries}")
  set(manual "${PROJECT_SOURCE_DIR}/docs/man/qxdict.1")
  if(QXDICT_PACKAGING)
    set(manual "${PROJECT_BINARY_DIR}/debian/qxdict.1.gz")
  endif()
  install(FILES "${manual}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
          COMPONENT qxdict-tools)
endif()

if(PROJECT_IS_TOP_LEVEL)
  if(QXDICT_PACKAGING)
    include(QxPackages)
  endif()
  add_custom_target(uninstall
    COMMAND "${CMAKE_COMMAND}" -D "BUILD=${PROJECT_BINARY_DIR}" -P "${CMAKE_CURRENT_LIST_DIR}/uninstall.cmake"
    COMMENT "Removing what was installed" VERBATIM)
endif()
