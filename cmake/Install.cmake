# Headers, library, pkg-config file and CMake package of an installation.
include(CMakePackageConfigHelpers)

set(OPAL_PUBLIC_HEADERS
  Common/Export.h Common/MemoryBuffer.h Common/OPALError.h Common/OPALPlayRate.h
  Common/OPALStreamType.h Common/OPALVersion.h Common/OPALWriterModel.h Common/SessionEvents.h
  Common/logging/ILogEventSender.h Common/logging/Logger.h PlatformAdapter/Mstar/HABPreferences.h
  StreamingController/ArrangedLogSender.h
  StreamingController/ISessionObserver.h
  StreamingController/IStreamingController.h StreamingController/IStreamingControllerNotify.h
  StreamingController/StreamingControllerListener.h
  StreamingController/StreamingControllerTypes.h)

foreach(header ${OPAL_PUBLIC_HEADERS})
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${CMAKE_SOURCE_DIR}/src/${header}
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/opal/${folder})
endforeach()
install(FILES platform/include/TvSet.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/opal)

opal_interface_pages()

set(OPAL_LIBRARIES OPAL opal_tvset)
if(OPAL_TICKET_START)
  list(APPEND OPAL_LIBRARIES opal_services)
endif()
install(FILES docs/kmt_ssa_config.xml docs/log4cxx.properties docs/SERVICES.md THIRD-PARTY.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(TARGETS ${OPAL_LIBRARIES} EXPORT OPALTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/opal)
install(EXPORT OPALTargets NAMESPACE OPAL:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OPAL)
configure_package_config_file(cmake/OPALConfig.cmake.in ${CMAKE_BINARY_DIR}/OPALConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OPAL)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/OPALConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/OPALConfig.cmake ${CMAKE_BINARY_DIR}/OPALConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/OPAL)
file(RELATIVE_PATH OPAL_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/opal.pc.in ${CMAKE_BINARY_DIR}/opal.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/opal.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(OPAL_BUILD_TOOLS)
  install(TARGETS ${OPAL_TOOLS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  opal_tool_documents()
endif()
