# The optional metrics library, http_server_lib::metrics (libhttp_server_lib_metrics):
# relay/metrics.cc over prometheus-cpp's core library, its registry and text
# serializer (never its own HTTP server). The core library neither contains nor
# links it; applications that want /metrics link this one as well.
pkg_check_modules(HSL_PROMETHEUS REQUIRED IMPORTED_TARGET prometheus-cpp-core)

add_library(http_server_lib_metrics SHARED relay/metrics.cc)
add_library(http_server_lib::metrics ALIAS http_server_lib_metrics)
set_target_properties(http_server_lib_metrics PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION 0 EXPORT_NAME metrics)
target_link_libraries(http_server_lib_metrics PUBLIC http_server_lib PkgConfig::HSL_PROMETHEUS)

# What uses it in this tree: the demo and the tests. The benchmark links it in
# bench/CMakeLists.txt.
foreach(user demo_server metrics_test)
  if(TARGET ${user})
    target_link_libraries(${user} PRIVATE http_server_lib_metrics)
  endif()
endforeach()
# End to end: the demo's /metrics read by Prometheus's own text parser.
if(HSL_BUILD_TESTS AND TARGET demo_server)
  add_test(NAME metrics_scrape
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/tests/metrics_scrape.py $<TARGET_FILE:demo_server>)
  set_tests_properties(metrics_scrape PROPERTIES LABELS unit TIMEOUT 120)
endif()
# The core library neither contains the metrics nor links prometheus-cpp.
if(HSL_BUILD_TESTS)
  add_test(NAME core_without_metrics COMMAND sh -c
    "! nm -DC --defined-only \"$1\" | grep -q MetricsObserver && ! readelf -d \"$1\" | grep -q prometheus"
    sh $<TARGET_FILE:http_server_lib>)
  set_tests_properties(core_without_metrics PROPERTIES LABELS unit)
endif()

# Installed beside the core: the library, its own export set in the same CMake
# package (http_server_lib-config.cmake includes http_server_lib_metrics.cmake,
# which gives the target only when prometheus-cpp is found too), and its own .pc.
# relay/metrics.h is among the public headers installed by CMakeLists.txt.
install(TARGETS http_server_lib_metrics EXPORT http_server_lib_metrics_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/http_server_lib)
install(EXPORT http_server_lib_metrics_targets NAMESPACE http_server_lib::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/http_server_lib)
install(FILES cmake/http_server_lib_metrics.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/http_server_lib)
configure_file(cmake/http_server_lib_metrics.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/http_server_lib_metrics.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/http_server_lib_metrics.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
