# The plug-in: the four modules as one static PIC library that the tests link,
# and libqvefos.so that links it whole and exports the fourteen entry points.
file(GLOB QVEFOS_SOURCES CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/fos/*.cc ${PROJECT_SOURCE_DIR}/fosl/*.cc
  ${PROJECT_SOURCE_DIR}/foslt/*.cc ${PROJECT_SOURCE_DIR}/fosud/*.cc)

set(QVEFOS_FLAGS -fno-exceptions -fno-rtti -fvisibility=hidden
                 -fvisibility-inlines-hidden)

add_library(qvefos_core STATIC ${QVEFOS_SOURCES})
target_include_directories(qvefos_core PUBLIC ${PROJECT_SOURCE_DIR}
  ${PROJECT_SOURCE_DIR}/host/include)
target_compile_options(qvefos_core PRIVATE ${QVEFOS_FLAGS})

set(QVEFOS_MAP ${PROJECT_SOURCE_DIR}/fos/qvefos.map)
add_library(qvefos SHARED ${PROJECT_SOURCE_DIR}/fos/qvefos_library.c)
target_link_libraries(qvefos PRIVATE "$<LINK_LIBRARY:WHOLE_ARCHIVE,qvefos_core>")
# Host operations stay undefined: the agent that loads the plug-in provides
# them, whichever host that is.
target_link_options(qvefos PRIVATE "-Wl,--version-script=${QVEFOS_MAP}")
set_target_properties(qvefos PROPERTIES LINK_DEPENDS ${QVEFOS_MAP})

# Installed where the fetchlet program looks for it (QVE_INSTALLED_PLUGIN):
# a directory of its own, since it is loaded with dlopen and has no soname.
install(TARGETS qvefos LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/fetchlet)
