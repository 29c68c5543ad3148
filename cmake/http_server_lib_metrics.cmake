# Part of the http_server_lib package: the target http_server_lib::metrics, given
# only when prometheus-cpp's core library is found too (find_package with
# COMPONENTS metrics makes it required).
pkg_check_modules(HSL_PROMETHEUS QUIET IMPORTED_TARGET prometheus-cpp-core)
if(HSL_PROMETHEUS_FOUND)
  include("${CMAKE_CURRENT_LIST_DIR}/http_server_lib_metrics_targets.cmake")
  set(http_server_lib_metrics_FOUND TRUE)
else()
  set(http_server_lib_metrics_FOUND FALSE)
endif()
