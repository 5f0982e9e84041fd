# What `cmake --install` puts into the prefix: the library, the public headers
# (under include/velmora, the directory the CMake targets and velmora.pc add
# to the include path), the labels-file sample, the Python module and the
# Wireshark dissector, velmora-sim and velmora-cli,
# the CMake package (find_package(Velmora) -> Velmora::Velmora and
# Velmora::VelmoraPrefixed) and the pkg-config modules velmora and
# velmora-prefixed. Everything in it is relative to the prefix, so the
# prefix given at install time holds.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(velmora_include_dir ${CMAKE_INSTALL_INCLUDEDIR}/velmora)
set(velmora_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Velmora)
set(velmora_data_dir ${CMAKE_INSTALL_DATADIR}/velmora)

target_include_directories(Velmora INTERFACE "$<INSTALL_INTERFACE:${velmora_include_dir}>")
install(TARGETS Velmora VelmoraPrefixed EXPORT VelmoraTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${velmora_public_headers} DESTINATION ${velmora_include_dir})
install(FILES display/Velmora.xml DESTINATION ${velmora_data_dir})
# The Python module finds the library from there (../../../lib); the
# dissector goes to tshark/Wireshark with -X lua_script: or a plugins folder.
install(FILES python/velmora.py DESTINATION ${velmora_data_dir}/python)
install(FILES tools/wireshark/velmora.lua DESTINATION ${velmora_data_dir}/wireshark)
install(EXPORT VelmoraTargets NAMESPACE Velmora:: DESTINATION ${velmora_cmake_dir})

# The programs find the library next to them, in ../lib.
foreach(program velmora-sim velmora-cli)
  if(TARGET ${program})
    file(RELATIVE_PATH to_lib /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CMAKE_INSTALL_LIBDIR})
    set_target_properties(${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${to_lib}")
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

configure_package_config_file(cmake/VelmoraConfig.cmake.in ${PROJECT_BINARY_DIR}/VelmoraConfig.cmake
                              INSTALL_DESTINATION ${velmora_cmake_dir}
                              PATH_VARS velmora_data_dir)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VelmoraConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VelmoraConfig.cmake ${PROJECT_BINARY_DIR}/VelmoraConfigVersion.cmake
        DESTINATION ${velmora_cmake_dir})

# pkg-config finds the prefix from where the .pc file lies.
file(RELATIVE_PATH pc_to_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
if(WIN32)
  set(pc_system_socket_library -lws2_32)
else()
  set(pc_system_socket_library -Wl,-lc)
endif()
foreach(module velmora velmora-prefixed)
  configure_file(cmake/${module}.pc.in ${PROJECT_BINARY_DIR}/${module}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${module}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
