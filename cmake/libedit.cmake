# The line editor, as the target PkgConfig::LIBEDIT. Another architecture's development package
# can't always be installed beside the host's: then its library and the host's header will do.

pkg_check_modules(LIBEDIT IMPORTED_TARGET GLOBAL libedit)
if(NOT LIBEDIT_FOUND)
  find_path(LIBEDIT_HEADERS histedit.h REQUIRED)
  find_library(LIBEDIT_LIBRARY NAMES edit libedit.so.2 REQUIRED)
  add_library(PkgConfig::LIBEDIT UNKNOWN IMPORTED GLOBAL)
  set_target_properties(PkgConfig::LIBEDIT PROPERTIES
    IMPORTED_LOCATION ${LIBEDIT_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES ${LIBEDIT_HEADERS})
endif()
