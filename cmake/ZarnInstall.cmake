# What `cmake --install` puts in place: the library with its SONAME links,
# the public headers, the platform stand-in, zarnsearch, the systemd units of
# the daemon and of a shard server, a pkg-config file and a CMake package.
# The daemon (which is also the indexer) installs itself from
# daemon/CMakeLists.txt.
include(CMakePackageConfigHelpers)

set(ZARN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zarncontentsearchutils)

install(TARGETS zarncontentsearchutils zarnplatform
  EXPORT zarncontentsearchutilsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES
  ${PROJECT_SOURCE_DIR}/include/zarncontentsearchutils.h
  ${PROJECT_SOURCE_DIR}/include/zarn_connection.h
  ${PROJECT_SOURCE_DIR}/platform/include/zarnplatform.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# The programs find the library and the stand-in relative to themselves.
set_target_properties(zarnsearch zarnelasticd PROPERTIES
  INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
install(TARGETS zarnsearch RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The unit names the daemon where it is installed, so it is written at install
# time (`cmake --install --prefix` may choose another prefix).  systemd looks
# for units of the prefix in lib/, whatever the library folder.
if(IS_ABSOLUTE "${CMAKE_INSTALL_SBINDIR}")
  set(_zarn_sbindir "${CMAKE_INSTALL_SBINDIR}")
else()
  set(_zarn_sbindir "\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}")
endif()
install(CODE "
  set(ZARN_SBINDIR \"${_zarn_sbindir}\")
  configure_file(\"${CMAKE_CURRENT_LIST_DIR}/zarnelasticd.service.in\"
                 \"${PROJECT_BINARY_DIR}/zarnelasticd.service\" @ONLY)")
install(FILES ${PROJECT_BINARY_DIR}/zarnelasticd.service ${CMAKE_CURRENT_LIST_DIR}/xapian-tcpsrv@.service
  ${CMAKE_CURRENT_LIST_DIR}/xapian-replicate-server.service ${CMAKE_CURRENT_LIST_DIR}/xapian-replicate@.service
  DESTINATION lib/systemd/system)

# CMake package: zarncontentsearchutils::zarncontentsearchutils and
# zarncontentsearchutils::zarnplatform.
install(EXPORT zarncontentsearchutilsTargets
  NAMESPACE zarncontentsearchutils::
  DESTINATION ${ZARN_CMAKE_DIR})
configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/zarncontentsearchutilsConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zarncontentsearchutilsConfig.cmake
  INSTALL_DESTINATION ${ZARN_CMAKE_DIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/zarncontentsearchutilsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/zarncontentsearchutilsConfig.cmake
  ${PROJECT_BINARY_DIR}/zarncontentsearchutilsConfigVersion.cmake
  DESTINATION ${ZARN_CMAKE_DIR})

# pkg-config file, relocatable: its prefix is found from where it lies, so a
# `cmake --install --prefix` elsewhere needs no new configure.
set(ZARN_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${ZARN_PC_DIR}")
  set(ZARN_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH _up "/prefix/${ZARN_PC_DIR}" "/prefix")
  string(REGEX REPLACE "/$" "" _up "${_up}")
  set(ZARN_PC_PREFIX "\${pcfiledir}/${_up}")
endif()
foreach(_dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${_dir}}")
    set(ZARN_PC_${_dir} "${CMAKE_INSTALL_${_dir}}")
  else()
    set(ZARN_PC_${_dir} "\${prefix}/${CMAKE_INSTALL_${_dir}}")
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/zarncontentsearchutils.pc.in
               ${PROJECT_BINARY_DIR}/zarncontentsearchutils.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zarncontentsearchutils.pc DESTINATION ${ZARN_PC_DIR})
