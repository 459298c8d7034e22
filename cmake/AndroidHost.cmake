# Debian's host builds of Android's liblog and libutils: headers under
# /usr/include/android, libraries in the multiarch android/ folder.
find_path(ANDROID_HOST_INCLUDE_DIR android/log.h PATH_SUFFIXES android REQUIRED)
find_library(ANDROID_LIBLOG log PATH_SUFFIXES android REQUIRED NO_CMAKE_SYSTEM_PATH
  PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
find_library(ANDROID_LIBUTILS utils PATH_SUFFIXES android REQUIRED NO_CMAKE_SYSTEM_PATH
  PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
get_filename_component(ANDROID_HOST_LIBRARY_DIR "${ANDROID_LIBLOG}" DIRECTORY)

add_library(android_liblog SHARED IMPORTED GLOBAL)
set_target_properties(android_liblog PROPERTIES IMPORTED_LOCATION "${ANDROID_LIBLOG}"
  INTERFACE_INCLUDE_DIRECTORIES "${ANDROID_HOST_INCLUDE_DIR}")
add_library(android_libutils SHARED IMPORTED GLOBAL)
set_target_properties(android_libutils PROPERTIES IMPORTED_LOCATION "${ANDROID_LIBUTILS}"
  INTERFACE_INCLUDE_DIRECTORIES "${ANDROID_HOST_INCLUDE_DIR}")

# The android/ folder is not on the loader's path; binaries find it through their runpath.
list(APPEND CMAKE_BUILD_RPATH "${ANDROID_HOST_LIBRARY_DIR}")
set(CMAKE_INSTALL_RPATH "$ORIGIN;${ANDROID_HOST_LIBRARY_DIR}")
