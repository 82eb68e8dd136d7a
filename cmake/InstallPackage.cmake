# What is installed beside the library: the pkg-config file and the CMake package, by which those who build against
# it find it, and the lock files of caches.
include(CMakePackageConfigHelpers)

set(mavix_pc_folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(mavix_package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/MavixApi)

# From the file's own place, so that the tree can be moved.
file(RELATIVE_PATH MAVIX_PREFIX_FROM_PC /prefix/${mavix_pc_folder} /prefix)
string(REGEX REPLACE "/$" "" MAVIX_PREFIX_FROM_PC ${MAVIX_PREFIX_FROM_PC})
configure_file(${CMAKE_CURRENT_LIST_DIR}/mavix-api.pc.in ${PROJECT_BINARY_DIR}/package/mavix-api.pc @ONLY)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/MavixApiConfig.cmake.in
  ${PROJECT_BINARY_DIR}/package/MavixApiConfig.cmake
  INSTALL_DESTINATION ${mavix_package_folder} NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/MavixApiConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)

install(FILES ${PROJECT_BINARY_DIR}/package/mavix-api.pc DESTINATION ${mavix_pc_folder})
install(FILES
  ${PROJECT_BINARY_DIR}/package/MavixApiConfig.cmake
  ${PROJECT_BINARY_DIR}/package/MavixApiConfigVersion.cmake
  DESTINATION ${mavix_package_folder})
install(EXPORT MavixApiTargets NAMESPACE MavixApi:: DESTINATION ${mavix_package_folder})

# For systemd-tmpfiles.
set(MAVIX_CACHE_LOCK_FILES "")
foreach(name IN LISTS MAVIX_CACHE_NAMES)
  string(APPEND MAVIX_CACHE_LOCK_FILES
    "f /run/${name}_cache_lock 0777 ${MAVIX_CACHE_OWNER_UID} ${MAVIX_CACHE_OWNER_GID} -\n")
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/packaging/mavix-cache.conf.in ${PROJECT_BINARY_DIR}/package/mavix-cache.conf @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/mavix-cache.conf DESTINATION lib/tmpfiles.d)
