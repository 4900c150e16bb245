# Installs the shared library, its public headers under include/clipdec/,
# a pkg-config file and a CMake package (find_package(clipdec) -> clipdec::clipdec).
include(CMakePackageConfigHelpers)

# Public headers, relative to src/; installed with the same relative layout so
# their own includes resolve the same way in the source tree and when installed.
set(CLIPDEC_PUBLIC_HEADERS
  clipdec.h
  clipdec_export.h
  audio_mixer.h
  audio_overview.h
  rational.h
  range.h
  ff_tools.h
  ffdecoder.h
  ffdecoder2.h
  filmstrip.h
  frame_records.h
  movie_info.h
  utils/bg_time.h
  utils/mempool.h
  utils/fs.h
  utils/zo_text.h
  utils/zo_encoding.h
  utils/zo_md5.h
  utils/wave_files.h
)
foreach(header IN LISTS CLIPDEC_PUBLIC_HEADERS)
  get_filename_component(dir ${header} DIRECTORY)
  install(FILES src/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/clipdec/${dir})
endforeach()

install(TARGETS clipdec EXPORT clipdecTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT clipdecTargets NAMESPACE clipdec::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/clipdec)
configure_package_config_file(cmake/clipdecConfig.cmake.in
  ${PROJECT_BINARY_DIR}/clipdecConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/clipdec)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/clipdecConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/clipdecConfig.cmake ${PROJECT_BINARY_DIR}/clipdecConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/clipdec)

list(JOIN CLIPDEC_FFMPEG_MODULES " " CLIPDEC_PC_REQUIRES)
# The .pc file finds its prefix relative to itself, so the tree can be moved
# or installed with `cmake --install --prefix`.
file(RELATIVE_PATH CLIPDEC_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(cmake/clipdec.pc.in ${PROJECT_BINARY_DIR}/clipdec.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/clipdec.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
