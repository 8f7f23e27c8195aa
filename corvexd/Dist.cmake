# The daemon builds the app uploads to remote machines, with their manifest, in
# share/corvex/corvexd-dist/ beside bin/ (and under the install prefix). Only this machine's
# platform is built: a second architecture would compile the daemon a second time.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(dist_arch x86_64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64|ARM64)$")
  set(dist_arch aarch64)
else()
  set(dist_arch ${CMAKE_SYSTEM_PROCESSOR})
endif()
string(TOLOWER "${CMAKE_SYSTEM_NAME}" dist_os)
if(dist_os STREQUAL "darwin")
  set(dist_os macos)
endif()
set(dist_platform ${dist_os}-${dist_arch})
set(dist_dir ${CMAKE_BINARY_DIR}/share/corvex/corvexd-dist)
set(dist_binary ${dist_dir}/${dist_platform}/corvexd)

# A remote machine has none of our build's libraries, and maybe an older C library than
# this one (Ubuntu 22.04 has glibc 2.35, Debian 11 2.31): the shipped daemon is linked
# statically, from the same objects as the local one. User lookups in a static glibc still
# work from /etc/passwd; the daemon needs no more. A sanitized build ships its own daemon,
# which runs only here, for the tests.
set(dist_source corvexd)
if(NOT CORVEX_SANITIZE AND CMAKE_SYSTEM_NAME STREQUAL "Linux")
  add_executable(corvexd-static main.cpp)
  target_link_libraries(corvexd-static PRIVATE corvexdCore)
  target_link_options(corvexd-static PRIVATE -static)
  set_target_properties(corvexd-static PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/corvexd-static)
  set(dist_source corvexd-static)
endif()

set(dist_copy ${CMAKE_COMMAND} -E copy $<TARGET_FILE:${dist_source}> ${dist_binary})
if(CMAKE_STRIP)
  # Debug information only slows the upload down.
  set(dist_copy ${CMAKE_STRIP} --strip-debug -o ${dist_binary} $<TARGET_FILE:${dist_source}>)
endif()
add_custom_command(
  OUTPUT ${dist_binary} ${dist_dir}/manifest.json
  COMMAND ${CMAKE_COMMAND} -E make_directory ${dist_dir}/${dist_platform}
  COMMAND ${dist_copy}
  COMMAND ${CMAKE_COMMAND} -DDIST=${dist_dir} -DPLATFORM=${dist_platform} -DVERSION=${PROJECT_VERSION}
          -DID=${PROJECT_VERSION}-${CORVEXD_BUILD_HASH} -P ${CMAKE_CURRENT_SOURCE_DIR}/DistManifest.cmake
  DEPENDS ${dist_source} ${CMAKE_CURRENT_SOURCE_DIR}/DistManifest.cmake
  COMMENT "corvexd-dist: ${dist_platform}"
  VERBATIM)
add_custom_target(corvexd-dist ALL DEPENDS ${dist_binary} ${dist_dir}/manifest.json)
install(TARGETS corvexd RUNTIME DESTINATION bin)
install(DIRECTORY ${dist_dir} DESTINATION share/corvex USE_SOURCE_PERMISSIONS)
