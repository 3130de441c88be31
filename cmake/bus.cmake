# The message bus: libubox and libubus where they are found, else the bundled stand-in.
# Gives the target ipacl::bus; the broker ipacl-busd is built with the bundled one.

if(NOT IPACL_BUS STREQUAL "bundled")
  find_path(UBUS_INCLUDE_DIR libubus.h)
  find_library(UBUS_LIBRARY ubus)
  find_library(UBOX_LIBRARY ubox)
endif()

if(UBUS_INCLUDE_DIR AND UBUS_LIBRARY AND UBOX_LIBRARY)
  set(IPACL_BUS_FOUND system)
elseif(IPACL_BUS STREQUAL "system")
  message(FATAL_ERROR "IPACL_BUS=system, but libubox and libubus were not found")
else()
  set(IPACL_BUS_FOUND bundled)
endif()
message(STATUS "Message bus: ${IPACL_BUS_FOUND}")

if(IPACL_BUS_FOUND STREQUAL "system")
  add_library(ipacl_bus_system INTERFACE)
  target_include_directories(ipacl_bus_system SYSTEM INTERFACE ${UBUS_INCLUDE_DIR})
  target_link_libraries(ipacl_bus_system INTERFACE ${UBUS_LIBRARY} ${UBOX_LIBRARY})
  add_library(ipacl::bus ALIAS ipacl_bus_system)
else()
  add_subdirectory(bus)
  add_library(ipacl::bus ALIAS ipacl_bus)
endif()
