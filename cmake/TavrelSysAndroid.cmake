# Android's host libraries as Debian ships them (android-liblog-dev, android-libutils-dev):
# headers under include/android, libraries in the architecture's android/ folder. Included
# by the build and by the installed package, so that each machine finds its own copies.
# Defines the imported targets TavrelSys::android_log and TavrelSys::android_utils, or
# lists in TavrelSys_ANDROID_MISSING what it could not find.
find_path(TavrelSys_ANDROID_INCLUDE_DIR android/log.h PATH_SUFFIXES android)
find_library(TavrelSys_ANDROID_LOG_LIBRARY log PATH_SUFFIXES android)
find_library(TavrelSys_ANDROID_UTILS_LIBRARY utils PATH_SUFFIXES android)

set(TavrelSys_ANDROID_MISSING "")
foreach(_tavrel_found TavrelSys_ANDROID_INCLUDE_DIR TavrelSys_ANDROID_LOG_LIBRARY
    TavrelSys_ANDROID_UTILS_LIBRARY)
  if(NOT ${_tavrel_found})
    list(APPEND TavrelSys_ANDROID_MISSING ${_tavrel_found})
  endif()
endforeach()

if(NOT TavrelSys_ANDROID_MISSING AND NOT TARGET TavrelSys::android_log)
  add_library(TavrelSys::android_log SHARED IMPORTED)
  set_target_properties(TavrelSys::android_log PROPERTIES
    IMPORTED_LOCATION "${TavrelSys_ANDROID_LOG_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${TavrelSys_ANDROID_INCLUDE_DIR}")
  add_library(TavrelSys::android_utils SHARED IMPORTED)
  set_target_properties(TavrelSys::android_utils PROPERTIES
    IMPORTED_LOCATION "${TavrelSys_ANDROID_UTILS_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${TavrelSys_ANDROID_INCLUDE_DIR}")
endif()
