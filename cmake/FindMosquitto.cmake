# The MQTT client library, as the target Mosquitto::Mosquitto.
include(FindPackageHandleStandardArgs)

find_path(Mosquitto_INCLUDE_DIR mosquitto.h)
find_library(Mosquitto_LIBRARY mosquitto)
find_package_handle_standard_args(Mosquitto DEFAULT_MSG Mosquitto_LIBRARY Mosquitto_INCLUDE_DIR)

if(Mosquitto_FOUND AND NOT TARGET Mosquitto::Mosquitto)
  add_library(Mosquitto::Mosquitto UNKNOWN IMPORTED)
  set_target_properties(
    Mosquitto::Mosquitto PROPERTIES IMPORTED_LOCATION ${Mosquitto_LIBRARY}
                                    INTERFACE_INCLUDE_DIRECTORIES ${Mosquitto_INCLUDE_DIR})
endif()
