# nlohmann-json and CLI11 as the targets nlohmann_json::nlohmann_json and
# CLI11::CLI11. Both are header-only, so a cross build uses the build
# machine's headers: it gets a folder in the build tree that holds links to
# just those two header folders, never the whole of /usr/include.
include_guard(GLOBAL)

if(NOT CMAKE_CROSSCOMPILING)
  find_package(nlohmann_json CONFIG REQUIRED GLOBAL)
  find_package(CLI11 CONFIG REQUIRED GLOBAL)
  return()
endif()

set(BASEKIT64_HEADER_ONLY_ROOT /usr/include CACHE PATH
    "Where a cross build finds the nlohmann/ and CLI/ header folders")
set(_basekit_header_dir ${CMAKE_BINARY_DIR}/header-only/include)
file(MAKE_DIRECTORY ${_basekit_header_dir})
foreach(_pair "nlohmann_json::nlohmann_json=nlohmann/json.hpp" "CLI11::CLI11=CLI/CLI.hpp")
  string(REPLACE "=" ";" _pair ${_pair})
  list(GET _pair 0 _target)
  list(GET _pair 1 _header)
  get_filename_component(_folder ${_header} DIRECTORY)
  if(NOT EXISTS ${BASEKIT64_HEADER_ONLY_ROOT}/${_header})
    message(FATAL_ERROR "${BASEKIT64_HEADER_ONLY_ROOT}/${_header} not found "
                        "(install nlohmann-json3-dev and libcli11-dev)")
  endif()
  file(CREATE_LINK ${BASEKIT64_HEADER_ONLY_ROOT}/${_folder} ${_basekit_header_dir}/${_folder}
       SYMBOLIC COPY_ON_ERROR)
  add_library(${_target} INTERFACE IMPORTED GLOBAL)
  set_target_properties(${_target} PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES ${_basekit_header_dir}
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES ${_basekit_header_dir})
endforeach()
