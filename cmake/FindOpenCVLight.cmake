# Finds OpenCV's core, imgproc and (optionally) imgcodecs modules without the
# full OpenCV CMake package, which Debian ships only in the heavy libopencv-dev.
# Uses OpenCV's own config when it is installed (the Android SDK, a full install).
# Defines the imported targets OpenCVLight::<module>.

set(_ocvl_modules ${OpenCVLight_FIND_COMPONENTS})
if(NOT _ocvl_modules)
  set(_ocvl_modules core imgproc)
endif()

find_package(OpenCV CONFIG QUIET COMPONENTS ${_ocvl_modules})
if(OpenCV_FOUND)
  foreach(_m IN LISTS _ocvl_modules)
    if(NOT TARGET OpenCVLight::${_m})
      add_library(OpenCVLight::${_m} INTERFACE IMPORTED)
      set_target_properties(OpenCVLight::${_m} PROPERTIES
        INTERFACE_LINK_LIBRARIES opencv_${_m}
        INTERFACE_INCLUDE_DIRECTORIES "${OpenCV_INCLUDE_DIRS}")
    endif()
  endforeach()
  set(OpenCVLight_FOUND TRUE)
  return()
endif()

find_path(OpenCVLight_INCLUDE_DIR opencv2/core/core_c.h PATH_SUFFIXES opencv4)
set(_ocvl_required OpenCVLight_INCLUDE_DIR)
foreach(_m IN LISTS _ocvl_modules)
  find_library(OpenCVLight_${_m}_LIBRARY NAMES opencv_${_m})
  list(APPEND _ocvl_required OpenCVLight_${_m}_LIBRARY)
  if(OpenCVLight_${_m}_LIBRARY)
    set(OpenCVLight_${_m}_FOUND TRUE)
  endif()
endforeach()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OpenCVLight REQUIRED_VARS ${_ocvl_required} HANDLE_COMPONENTS)

if(OpenCVLight_FOUND)
  foreach(_m IN LISTS _ocvl_modules)
    if(NOT TARGET OpenCVLight::${_m})
      add_library(OpenCVLight::${_m} UNKNOWN IMPORTED)
      set_target_properties(OpenCVLight::${_m} PROPERTIES
        IMPORTED_LOCATION "${OpenCVLight_${_m}_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${OpenCVLight_INCLUDE_DIR}")
    endif()
  endforeach()
endif()
