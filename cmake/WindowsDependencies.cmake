# Windows flavour (cross-built with mingw-w64): Poco and FFmpeg come from the
# prefix that scripts/windows/build-deps.sh fills; ffmpeg.exe and ffprobe.exe
# are copied beside the programs, where the library looks for ffmpeg.exe.
if(NOT VIDEOREPAIR_WINDOWS_PREFIX)
  message(FATAL_ERROR "VIDEOREPAIR_WINDOWS_PREFIX must name the Windows dependency prefix")
endif()
set(prefix ${VIDEOREPAIR_WINDOWS_PREFIX})

# Debian's Poco sources install no CMake package files, so the two static
# libraries are described here with the definitions their build made public.
foreach(component Foundation JSON)
  if(NOT EXISTS ${prefix}/lib/libPoco${component}.a)
    message(FATAL_ERROR "Poco ${component} for Windows is missing: run scripts/windows/build-deps.sh")
  endif()
  add_library(Poco::${component} STATIC IMPORTED)
  set_target_properties(Poco::${component} PROPERTIES
    IMPORTED_LOCATION ${prefix}/lib/libPoco${component}.a
    INTERFACE_INCLUDE_DIRECTORIES ${prefix}/include)
endforeach()
set_target_properties(Poco::Foundation PROPERTIES
  INTERFACE_COMPILE_DEFINITIONS "POCO_STATIC;POCO_OS_FAMILY_WINDOWS;POCO_WIN32_UTF8;UNICODE;_UNICODE;WC_NO_BEST_FIT_CHARS=0x400"
  INTERFACE_LINK_LIBRARIES "iphlpapi;ws2_32")
set_target_properties(Poco::JSON PROPERTIES INTERFACE_LINK_LIBRARIES Poco::Foundation)
find_package(Threads REQUIRED)

# FFmpeg's static libraries need their private dependencies (pkg-config --static).
find_package(PkgConfig REQUIRED)
set(ENV{PKG_CONFIG_LIBDIR} ${prefix}/lib/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
pkg_check_modules(AVFORMAT REQUIRED IMPORTED_TARGET libavformat libavutil libavcodec)
set_property(TARGET PkgConfig::AVFORMAT APPEND PROPERTY INTERFACE_LINK_DIRECTORIES ${AVFORMAT_STATIC_LIBRARY_DIRS})
set_property(TARGET PkgConfig::AVFORMAT APPEND PROPERTY INTERFACE_LINK_LIBRARIES ${AVFORMAT_STATIC_LIBRARIES})
pkg_check_modules(SWSCALE REQUIRED IMPORTED_TARGET libswscale)
set_property(TARGET PkgConfig::SWSCALE APPEND PROPERTY INTERFACE_LINK_LIBRARIES ${SWSCALE_STATIC_LIBRARIES})

set(SYSTEM_FFMPEG ${prefix}/bin/ffmpeg.exe)
set(SYSTEM_FFPROBE ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/ffprobe.exe)
file(MAKE_DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
file(COPY ${prefix}/bin/ffmpeg.exe ${prefix}/bin/ffprobe.exe DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
