# What `cmake --install` puts under the prefix: the library with its soname links,
# the public headers under include/videorepair/, the CMake package VideoRepair,
# the pkg-config module videorepair, the tool and its man page. Every path inside
# the installed files is relative to where they land, so the tree can be moved.
include(CMakePackageConfigHelpers)

set(VR_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/VideoRepair)

install(TARGETS lib_videorepair EXPORT VideoRepairTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
file(GLOB VR_PUBLIC_HEADERS ${CMAKE_SOURCE_DIR}/videorepair/mrvc-core/include/*.h)
install(FILES ${VR_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/videorepair)

install(EXPORT VideoRepairTargets NAMESPACE VideoRepair:: DESTINATION ${VR_CMAKE_PACKAGE_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/VideoRepairConfig.cmake.in
  ${CMAKE_BINARY_DIR}/VideoRepairConfig.cmake INSTALL_DESTINATION ${VR_CMAKE_PACKAGE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/VideoRepairConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/VideoRepairConfig.cmake ${CMAKE_BINARY_DIR}/VideoRepairConfigVersion.cmake
  DESTINATION ${VR_CMAKE_PACKAGE_DIR})

# pkg-config finds the prefix from where the .pc file lies.
file(RELATIVE_PATH VR_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" VR_PC_TO_PREFIX "${VR_PC_TO_PREFIX}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/videorepair.pc.in ${CMAKE_BINARY_DIR}/videorepair.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/videorepair.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET videorepair)
  # The installed tool finds the installed library relative to itself.
  file(RELATIVE_PATH VR_BIN_TO_LIB /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(videorepair PROPERTIES INSTALL_RPATH "$ORIGIN/${VR_BIN_TO_LIB}")
  install(TARGETS videorepair RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

  # The man page is the tool's own --help, so it cannot drift from it. A cross
  # build cannot run the tool and goes without.
  if(NOT CMAKE_CROSSCOMPILING)
    set(VR_MAN_PAGE ${CMAKE_BINARY_DIR}/man/videorepair.1)
    add_custom_command(OUTPUT ${VR_MAN_PAGE}
      COMMAND ${CMAKE_COMMAND} -DPROGRAM=$<TARGET_FILE:videorepair> -DOUTPUT=${VR_MAN_PAGE}
              -DVERSION=${PROJECT_VERSION} -P ${CMAKE_SOURCE_DIR}/cmake/ManPage.cmake
      DEPENDS videorepair ${CMAKE_SOURCE_DIR}/cmake/ManPage.cmake
      COMMENT "Writing the man page from videorepair --help")
    add_custom_target(videorepair_man ALL DEPENDS ${VR_MAN_PAGE})
    install(FILES ${VR_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endif()
endif()

# Debian keeps a package's documents under its own name.
install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/videorepair)
