# Installs the headers, the library, the CMake package and kest.pc. The component "runtime" is what a program needs to run, the component
# "development" what a program needs to be built.
include(CMakePackageConfigHelpers)

# Headers that only the library's own sources include.
set(internal_headers
    filesystem/descriptor.h
    filesystem/file_copy.h
    filesystem/file_move.h
    filesystem/folder_entry.h
    foundation/failure.h
    foundation/interval.h
    foundation/system_name.h
    foundation/unwinding.h
    net/descriptor_set.h
    net/lookup.h
    text/utf8_codec.h
    text/utf8_frame.h
    text/utf8_sequence.h
    text/utf8_shuffles.h
    text/utf8_strings.h
    threads/guard.h)

file(GLOB headers CONFIGURE_DEPENDS RELATIVE "${CMAKE_CURRENT_SOURCE_DIR}" "*.h" "*/*.h")
list(REMOVE_ITEM headers ${internal_headers})
foreach(header IN LISTS headers)
    get_filename_component(folder "${header}" DIRECTORY)
    install(FILES "${header}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/kest/${folder}" COMPONENT development)
endforeach()

set(libraries kest)
if(TARGET kest_static)
    list(APPEND libraries kest_static)
endif()
install(TARGETS ${libraries} EXPORT kestTargets
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development)

set(package_folder "${CMAKE_INSTALL_LIBDIR}/cmake/kest")
install(EXPORT kestTargets NAMESPACE kest:: DESTINATION "${package_folder}" COMPONENT development)
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/kestConfig.cmake.in" "${CMAKE_CURRENT_BINARY_DIR}/kestConfig.cmake"
    INSTALL_DESTINATION "${package_folder}" NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/kestConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/kestConfig.cmake" "${CMAKE_CURRENT_BINARY_DIR}/kestConfigVersion.cmake"
    DESTINATION "${package_folder}" COMPONENT development)

# kest.pc computes its prefix from its own place, so the tree may be installed with another prefix, or moved.
set(pc_folder "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
    set(PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
    set(PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
    set(PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
else()
    file(RELATIVE_PATH up "/${pc_folder}" "/")
    string(REGEX REPLACE "/$" "" up "${up}")
    set(PC_PREFIX "\${pcfiledir}/${up}")
    set(PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
    set(PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
list(TRANSFORM KEST_PUBLIC_DEFINITIONS PREPEND "-D" OUTPUT_VARIABLE PC_DEFINITIONS)
list(JOIN PC_DEFINITIONS " " PC_DEFINITIONS)
set(PC_LIBS "")
if(KEST_HAS_LIBCXX)
    set(PC_LIBS "${KEST_LINK_UNWINDER}")
endif()
set(PC_LIBS_PRIVATE "${KEST_LINK_UNWINDER} -pthread")
foreach(library IN LISTS CMAKE_DL_LIBS)
    string(APPEND PC_LIBS_PRIVATE " -l${library}")
endforeach()
configure_file("${PROJECT_SOURCE_DIR}/cmake/kest.pc.in" "${CMAKE_CURRENT_BINARY_DIR}/kest.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/kest.pc" DESTINATION "${pc_folder}" COMPONENT development)
