# What an application gets: headers, the shared library with the HAL that ships, the core without a HAL, the command line,
# a CMake package and a pkg-config file. Warnings and sanitizers of our own build stay here.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Closed under inclusion: none of these includes a header that is not here (tests/project/check_includes.py).
set(NIMBREL2_PUBLIC_HEADERS
    busmaster/BusCallbackType.h
    busmaster/BusMaster.h
    common/BusMasterHandle.h
    common/CameraInfo.h
    common/Error.h
    common/ErrorType.h
    common/GigEInterface.h
    common/HalEntry.h
    common/HalStatus.h
    common/HardwareInterface.h
    common/IEEE1394Interface.h
    common/IPAddress.h
    common/InterfaceType.h
    common/KeptReading.h
    common/MACAddress.h
    common/Singleton.h
    common/SingletonSlot.h
    common/Trace.h
    common/UsbInterface.h
    common/Version.h
    common/ZevoGuid.h
    hal/Export.h
    hal/HAL.h
    platform/BusMap.h
    platform/Diagnostics.h
    platform/FireWireDiagnostics.h
    platform/Platform.h
    platform/SimulatedComputer.h
    topology/TopologyNode.h)

foreach(header IN LISTS NIMBREL2_PUBLIC_HEADERS)
  cmake_path(GET header PARENT_PATH folder)
  install(FILES src/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/nimbrel2/${folder})
endforeach()

install(TARGETS nimbrel2 nimbrel2_core nimbrel2_hal nimbrel2_simulation EXPORT nimbrel2Targets
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/nimbrel2)

set(packageFolder ${CMAKE_INSTALL_LIBDIR}/cmake/nimbrel2)
install(EXPORT nimbrel2Targets NAMESPACE nimbrel2:: DESTINATION ${packageFolder})
configure_package_config_file(cmake/nimbrel2Config.cmake.in ${CMAKE_BINARY_DIR}/nimbrel2Config.cmake
                              INSTALL_DESTINATION ${packageFolder})
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/nimbrel2ConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/nimbrel2Config.cmake ${CMAKE_BINARY_DIR}/nimbrel2ConfigVersion.cmake
        DESTINATION ${packageFolder})

# The file finds its prefix from where it lies, so that a tree may be installed anywhere and moved afterwards.
set(pkgConfigFolder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH NIMBREL2_PREFIX_FROM_PKGCONFIG ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" NIMBREL2_PREFIX_FROM_PKGCONFIG ${NIMBREL2_PREFIX_FROM_PKGCONFIG})
foreach(package nimbrel2 nimbrel2-core nimbrel2-simulation)
  configure_file(cmake/${package}.pc.in ${CMAKE_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/${package}.pc DESTINATION ${pkgConfigFolder})
endforeach()

# Not where udevd and sysctl look: who may open which device is for an administrator to decide. `nimbrel doctor` prints the
# command that puts a rule in force.
install(FILES packaging/udev/70-nimbrel2-firewire.rules packaging/udev/70-nimbrel2-usb3-vision.rules
        DESTINATION share/nimbrel2/udev)
install(FILES packaging/sysctl.d/60-nimbrel2.conf DESTINATION share/nimbrel2/sysctl.d)

if(TARGET nimbrel)
  file(RELATIVE_PATH libraryFromProgram ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(nimbrel PROPERTIES INSTALL_RPATH "$ORIGIN/${libraryFromProgram}")
  install(TARGETS nimbrel)
  set(completions tools/nimbrel/completion)
  install(FILES ${completions}/nimbrel.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME nimbrel)
  install(FILES ${completions}/_nimbrel DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
  install(FILES ${completions}/nimbrel.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
  if(NIMBREL2_BUILD_MANUAL)
    install(DIRECTORY ${CMAKE_BINARY_DIR}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR})
  endif()
endif()
