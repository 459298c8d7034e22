# Debian's host builds of Android's liblog and libutils, as TavrelSys::android_log and
# TavrelSys::android_utils (the installed package finds them the same way).
include(${CMAKE_CURRENT_LIST_DIR}/TavrelSysAndroid.cmake)
if(TavrelSys_ANDROID_MISSING)
  list(JOIN TavrelSys_ANDROID_MISSING ", " _tavrel_missing)
  message(FATAL_ERROR "Android's host liblog and libutils are needed (Debian packages "
    "android-liblog-dev and android-libutils-dev); not found: ${_tavrel_missing}")
endif()
set_target_properties(TavrelSys::android_log TavrelSys::android_utils PROPERTIES
  IMPORTED_GLOBAL TRUE)

# The android/ folder is not on the loader's path; binaries find it through their runpath,
# as Debian's own Android libraries do. The installed libraries find each other through
# $ORIGIN, so the installed tree can be moved.
get_filename_component(ANDROID_HOST_LIBRARY_DIR "${TavrelSys_ANDROID_LOG_LIBRARY}" DIRECTORY)
list(APPEND CMAKE_BUILD_RPATH "${ANDROID_HOST_LIBRARY_DIR}")
set(CMAKE_INSTALL_RPATH "$ORIGIN;${ANDROID_HOST_LIBRARY_DIR}")
