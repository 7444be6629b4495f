# Builds the two probes of the lowest folder: the one that includes its own header must build,
# the one that includes a header from above must fail, and fail for that include.
foreach(probe layer_probe_down layer_probe_up)
  execute_process(COMMAND ${CMAKE_COMMAND} --build ${BUILD_DIR} --target ${probe}
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  set(${probe}_rc ${rc})
  set(${probe}_out "${out}")
endforeach()
if(NOT layer_probe_down_rc EQUAL 0)
  message(FATAL_ERROR "a file of the lowest folder did not build with its own header:\n${layer_probe_down_out}")
endif()
if(layer_probe_up_rc EQUAL 0)
  message(FATAL_ERROR "a file of the lowest folder built while including bridge/bridge.h")
endif()
if(NOT layer_probe_up_out MATCHES "bridge/bridge\\.h")
  message(FATAL_ERROR "the upward include failed, but not for the include:\n${layer_probe_up_out}")
endif()
message(STATUS "bridge/bridge.h is out of the lowest folder's reach")
