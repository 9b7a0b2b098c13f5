# Checks that the bridge guide's code quotes are the example's own, then
# installs a built SegmentationCore into a scratch folder, builds the example
# bridge against the installed package - as another project would, knowing
# nothing of this source tree - and runs it. Natively the example is built
# twice, through the CMake package and through pkg-config; in a cross build
# once, with the same toolchain, and run under the build's emulator.
#
#   cmake -DBUILD_DIR=<library build> -DWORK_DIR=<scratch> -DEXAMPLE_DIR=<examples/bridge>
#         [-DGUIDE=<docs/bridge.md>] [-DTOOLCHAIN_FILE=<file> -DTOOLCHAIN_ARGS=<a|b|...> -DEMULATOR=<a|b|...>]
#         [-DCXX=<compiler>] -P check_installed.cmake
#
# Lists are passed with '|' between items (ctest would split them at ';').

foreach(var BUILD_DIR WORK_DIR EXAMPLE_DIR)
  if(NOT ${var})
    message(FATAL_ERROR "check_installed: ${var} is not set")
  endif()
endforeach()
string(REPLACE "|" ";" TOOLCHAIN_ARGS "${TOOLCHAIN_ARGS}")
string(REPLACE "|" ";" EMULATOR "${EMULATOR}")

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "check_installed: ${what} failed (${status})")
  endif()
endfunction()

# 0. The bridge guide quotes the example: every ```cpp block of it must be
# found in the example word for word.
if(GUIDE)
  file(READ "${GUIDE}" rest)
  file(READ "${EXAMPLE_DIR}/bridge_example.cpp" example)
  set(quotes 0)
  foreach(attempt RANGE 100)
    string(FIND "${rest}" "```cpp\n" start)
    if(start EQUAL -1)
      break()
    endif()
    math(EXPR start "${start} + 7")
    string(SUBSTRING "${rest}" ${start} -1 rest)
    string(FIND "${rest}" "```" end)
    string(SUBSTRING "${rest}" 0 ${end} quote)
    string(FIND "${example}" "${quote}" at)
    if(at EQUAL -1)
      message(FATAL_ERROR "check_installed: the guide quotes code the example does not have:\n${quote}")
    endif()
    math(EXPR quotes "${quotes} + 1")
    string(SUBSTRING "${rest}" ${end} -1 rest)
  endforeach()
  if(quotes EQUAL 0)
    message(FATAL_ERROR "check_installed: no quotes of the example found in ${GUIDE}")
  endif()
  message(STATUS "the guide's ${quotes} quotes of the example match it")
endif()

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")

if(TOOLCHAIN_FILE)
  # Staged as a sysroot holds it: DESTDIR in front of the build's own prefix.
  set(stage "${WORK_DIR}/stage")
  run("cmake --install" ${CMAKE_COMMAND} -E env DESTDIR=${stage} ${CMAKE_COMMAND} --install "${BUILD_DIR}")
  file(GLOB_RECURSE config "${stage}/*/SegmentationCoreConfig.cmake")
  if(NOT config)
    message(FATAL_ERROR "check_installed: no SegmentationCoreConfig.cmake under ${stage}")
  endif()
  get_filename_component(package_dir "${config}" DIRECTORY)
  # The toolchain roots every search in its sysroot; the staged package is
  # named directly.
  set(locate -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE} ${TOOLCHAIN_ARGS} -DSegmentationCore_DIR=${package_dir})
else()
  set(prefix "${WORK_DIR}/prefix")
  run("cmake --install" ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
  set(locate -DCMAKE_PREFIX_PATH=${prefix})
  if(CXX)
    list(APPEND locate -DCMAKE_CXX_COMPILER=${CXX})
  endif()
endif()

# 1. The CMake package.
run("configuring the example" ${CMAKE_COMMAND} -S "${EXAMPLE_DIR}" -B "${WORK_DIR}/example"
    -DCMAKE_BUILD_TYPE=RelWithDebInfo ${locate})
run("building the example" ${CMAKE_COMMAND} --build "${WORK_DIR}/example")
run("the example (CMake package)" ${EMULATOR} "${WORK_DIR}/example/bridge_example")

# 2. pkg-config, natively: the flags it gives are all a plain compiler needs.
if(NOT TOOLCHAIN_FILE)
  find_program(PKG_CONFIG NAMES pkg-config pkgconf REQUIRED)
  file(GLOB_RECURSE pc "${prefix}/*/SegmentationCore.pc")
  get_filename_component(pc_dir "${pc}" DIRECTORY)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pc_dir}
                  ${PKG_CONFIG} --cflags --libs SegmentationCore
                  OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "check_installed: pkg-config SegmentationCore failed")
  endif()
  message(STATUS "pkg-config SegmentationCore: ${flags}")
  separate_arguments(flags UNIX_COMMAND "${flags}")
  if(NOT CXX)
    set(CXX c++)
  endif()
  run("compiling the example with pkg-config's flags" ${CXX} -std=c++17 -Wall -Wextra -Werror
      "${EXAMPLE_DIR}/bridge_example.cpp" -o "${WORK_DIR}/bridge_example_pc" ${flags} -pthread)
  # pkg-config names no run-time path: the loader is told where the library is.
  run("the example (pkg-config)" ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/lib
      "${WORK_DIR}/bridge_example_pc")
endif()
