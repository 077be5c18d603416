# The serving program's web configuration (TLS, basic auth) and its
# readiness messages to systemd, as a library of their own that the serve
# target links. Included after tests/ so that its tests join serve_tests.
#
# cpp-httplib is built with the definitions of its pkg-config file (OpenSSL,
# zlib, brotli): a header compiled without them would not match the library.
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
pkg_check_modules(YAMLCPP REQUIRED IMPORTED_TARGET yaml-cpp)
pkg_check_modules(LIBSYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
find_package(OpenSSL REQUIRED)
find_library(CRYPT_LIBRARY crypt REQUIRED)

add_library(serve_web STATIC
  ${PROJECT_SOURCE_DIR}/serve/web_config.cc
  ${PROJECT_SOURCE_DIR}/serve/notify.cc)
target_include_directories(serve_web PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(serve_web
  PUBLIC PkgConfig::HTTPLIB OpenSSL::SSL OpenSSL::Crypto
  PRIVATE PkgConfig::YAMLCPP PkgConfig::LIBSYSTEMD ${CRYPT_LIBRARY})

if(QVE_BUILD_TESTS)
  set(serve_web_tests
    ${PROJECT_SOURCE_DIR}/tests/serve/web_config_test.cc
    ${PROJECT_SOURCE_DIR}/tests/serve/web_tls_test.cc
    ${PROJECT_SOURCE_DIR}/tests/serve/notify_test.cc)
  if(NOT TARGET serve_tests)
    add_executable(serve_tests)
    target_link_libraries(serve_tests PRIVATE qve_test_support)
    gtest_discover_tests(serve_tests DISCOVERY_TIMEOUT 60 NO_PRETTY_VALUES)
  endif()
  target_sources(serve_tests PRIVATE ${serve_web_tests})
  target_link_libraries(serve_tests PRIVATE serve_web)
  set_property(SOURCE ${serve_web_tests} APPEND PROPERTY COMPILE_DEFINITIONS
    QVE_MAKE_CERTS="${PROJECT_SOURCE_DIR}/tests/serve/make_certs.sh"
    QVE_SAMPLE_WEB_CONFIG="${PROJECT_SOURCE_DIR}/packaging/web.yml")
endif()
