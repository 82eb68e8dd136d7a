# Compile options that every target of the project shares, and the helper that names sources in log lines.

add_library(mavix-options INTERFACE)
target_compile_options(mavix-options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wformat=2 -Wundef -Wcast-align -Werror
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi>
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)

if(MAVIX_SANITIZE STREQUAL "address")
  set(mavix_sanitize -fsanitize=address,undefined -fno-sanitize-recover=undefined)
elseif(MAVIX_SANITIZE STREQUAL "thread")
  set(mavix_sanitize -fsanitize=thread)
elseif(NOT MAVIX_SANITIZE STREQUAL "")
  message(FATAL_ERROR "MAVIX_SANITIZE is '${MAVIX_SANITIZE}', not address or thread")
endif()
if(mavix_sanitize)
  target_compile_options(mavix-options INTERFACE ${mavix_sanitize} -fno-omit-frame-pointer)
  target_link_options(mavix-options INTERFACE ${mavix_sanitize})
endif()
if(MAVIX_COVERAGE)
  target_link_options(mavix-options INTERFACE --coverage)
endif()

# Log lines and assertions name their source as "<folder>/<base name>", without extension and without the
# path of the machine that built it.
function(mavix_name_sources)
  foreach(source IN LISTS ARGN)
    get_filename_component(absolute ${source} ABSOLUTE)
    file(RELATIVE_PATH relative ${CMAKE_SOURCE_DIR}/src ${absolute})
    string(REGEX REPLACE "\\.[a-z]+$" "" relative ${relative})
    set_property(SOURCE ${source} APPEND PROPERTY COMPILE_DEFINITIONS "MAVIX_SOURCE=\"${relative}\"")
  endforeach()
endfunction()
