# An overlay port: it takes the sources that it lies in, or those that the environment variable KEST_SOURCE names.
if(DEFINED ENV{KEST_SOURCE})
    set(SOURCE_PATH "$ENV{KEST_SOURCE}")
else()
    get_filename_component(SOURCE_PATH "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)
endif()

vcpkg_cmake_configure(SOURCE_PATH "${SOURCE_PATH}" OPTIONS -DKEST_BUILD_TESTS=OFF -DKEST_BUILD_EXAMPLES=OFF)
vcpkg_cmake_install()
vcpkg_cmake_config_fixup(PACKAGE_NAME kest CONFIG_PATH lib/cmake/kest)
vcpkg_fixup_pkgconfig()
file(REMOVE_RECURSE "${CURRENT_PACKAGES_DIR}/debug/include")
file(INSTALL "${CMAKE_CURRENT_LIST_DIR}/usage" DESTINATION "${CURRENT_PACKAGES_DIR}/share/${PORT}")
vcpkg_install_copyright(FILE_LIST "${SOURCE_PATH}/debian/copyright")
