# The installed form of the library: `cmake --install <build> [--prefix P]`
# puts under the prefix
#   <libdir>/libSegmentationCore.camera.tavrin.so
#   <includedir>/segmentation_core.h                   (the whole public interface)
#   <libdir>/cmake/SegmentationCore/SegmentationCoreConfig[Version].cmake
#                                                      (find_package(SegmentationCore))
#   <libdir>/pkgconfig/SegmentationCore.pc             (pkg-config SegmentationCore)
# Both package files locate the prefix from their own folder, so the tree may
# be staged with DESTDIR (the armhf sysroot) or moved after installing.
# Only the library is installed: tests, benchmarks and tools stay in the build.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(SEGCORE_PACKAGE_VERSION 1.0.0)
get_target_property(_segcore_output_name SegmentationCore OUTPUT_NAME)
set(SEGCORE_LIBRARY_LINK_NAME ${_segcore_output_name})
set(SEGCORE_LIBRARY_FILE lib${_segcore_output_name}.so)

# Off Android, liblog is Debian's, kept in an android/ subfolder that the
# dynamic loader does not search: the installed library records that folder
# (as seen on the target, without the sysroot) to find it at run time, as the
# build tree's copy does. The NDK's liblog is a system library and needs none.
if(NOT ANDROID)
  get_filename_component(_segcore_log_dir "${ANDROID_LOG_LIB}" DIRECTORY)
  if(CMAKE_SYSROOT)
    string(LENGTH "${CMAKE_SYSROOT}" _segcore_sysroot_length)
    string(SUBSTRING "${_segcore_log_dir}" 0 ${_segcore_sysroot_length} _segcore_head)
    if(_segcore_head STREQUAL CMAKE_SYSROOT)
      string(SUBSTRING "${_segcore_log_dir}" ${_segcore_sysroot_length} -1 _segcore_log_dir)
    endif()
  endif()
  set_target_properties(SegmentationCore PROPERTIES INSTALL_RPATH "${_segcore_log_dir}")
endif()

install(TARGETS SegmentationCore LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/interface/segmentation_core.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(_segcore_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/SegmentationCore)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/SegmentationCoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/package/SegmentationCoreConfig.cmake
  INSTALL_DESTINATION ${_segcore_cmake_dir}
  PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
# The exported names and buffer formats have not changed since the first
# release: any 1.x satisfies a request for 1.0.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/SegmentationCoreConfigVersion.cmake
  VERSION ${SEGCORE_PACKAGE_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/package/SegmentationCoreConfig.cmake
              ${PROJECT_BINARY_DIR}/package/SegmentationCoreConfigVersion.cmake
        DESTINATION ${_segcore_cmake_dir})

# pkg-config: the prefix is ${pcfiledir} and as many ".." as the pkgconfig
# folder lies below the prefix (two for lib/pkgconfig, three for Debian's
# lib/<triplet>/pkgconfig).
file(RELATIVE_PATH SEGCORE_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" SEGCORE_PC_TO_PREFIX "${SEGCORE_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/SegmentationCore.pc.in
  ${PROJECT_BINARY_DIR}/package/SegmentationCore.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/SegmentationCore.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The example bridge (examples/bridge) is built against this installation, in
# a scratch folder of the build, and run as a test. Not in sanitizer builds:
# an instrumented library needs the sanitizer runtime loaded first, which the
# example, built plainly as an app's bridge is, does not do.
if(SEGCORE_TESTS AND NOT ANDROID AND NOT SEGCORE_SANITIZE)
  set(_segcore_check_args
    -DBUILD_DIR=${PROJECT_BINARY_DIR}
    -DWORK_DIR=${PROJECT_BINARY_DIR}/installed-package-check
    -DEXAMPLE_DIR=${PROJECT_SOURCE_DIR}/examples/bridge
    -DGUIDE=${PROJECT_SOURCE_DIR}/docs/bridge.md)
  if(CMAKE_CROSSCOMPILING)
    string(REPLACE ";" "|" _segcore_emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
    list(APPEND _segcore_check_args -DTOOLCHAIN_FILE=${CMAKE_TOOLCHAIN_FILE}
         "-DEMULATOR=${_segcore_emulator}")
    if(SEGCORE_CROSS_SYSROOT)
      list(APPEND _segcore_check_args -DTOOLCHAIN_ARGS=-DSEGCORE_CROSS_SYSROOT=${SEGCORE_CROSS_SYSROOT})
    endif()
  else()
    list(APPEND _segcore_check_args -DCXX=${CMAKE_CXX_COMPILER})
  endif()
  add_test(NAME InstalledPackage.BridgeExample
           COMMAND ${CMAKE_COMMAND} ${_segcore_check_args} -P ${PROJECT_SOURCE_DIR}/examples/bridge/check_installed.cmake)
  set_tests_properties(InstalledPackage.BridgeExample PROPERTIES TIMEOUT 600)
endif()
