# `cpack -G DEB` in the build tree makes one Debian package with the tool, the
# library, its headers, the CMake and pkg-config files and the man page. The
# libraries it needs come from dpkg-shlibdeps (libpoco, libavformat, ...); ffmpeg
# is run, not linked, so it is named here.
set(CPACK_PACKAGE_NAME videorepair)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "repairs damaged video files (lib_videorepair and the videorepair tool)")
set(CPACK_PACKAGE_DESCRIPTION "lib_videorepair rebuilds damaged AVI, FLV, MKV, MPEG-PS, MPEG-TS, MXF, WMV
and MP4-family files from what survives in them and from a healthy sample file
of the same camera. The package holds the videorepair command-line tool, the
shared library, its headers, a CMake package (VideoRepair) and a pkg-config
module (videorepair).")
set(CPACK_PACKAGE_CONTACT "lib_videorepair developers" CACHE STRING "Maintainer named in the .deb")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "ffmpeg")
include(CPack)
