# Installs the build tree into a fresh prefix, then builds a small program
# against it twice (the CMake package, then pkg-config) and runs both.
#   cmake -DBUILD_DIR=... -DWORK_DIR=... -DSOURCE_DIR=... -P InstallAndUse.cmake
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT code EQUAL 0)
    message(FATAL_ERROR "failed (${code}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(file bin/orogen lib/basekit64/libBaseKit64.so lib/libbasekit_host.a
             include/basekit64/host/Host.h include/basekit64/framework/Device.h
             lib/cmake/BaseKit64/BaseKit64Config.cmake lib/pkgconfig/basekit64.pc)
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()

# The installed orogen finds the installed module by itself.
run(${prefix}/bin/orogen --version)
if(NOT last_output MATCHES "lib/basekit64/libBaseKit64.so: [0-9]+ device types")
  message(FATAL_ERROR "orogen --version: ${last_output}")
endif()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/package/consumer -B ${WORK_DIR}/consumer
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
run(${WORK_DIR}/consumer/consumer ${prefix}/lib/basekit64/libBaseKit64.so)
message(STATUS "CMake package: ${last_output}")

find_program(PKG_CONFIG pkg-config)
find_program(CXX NAMES c++ g++)
if(PKG_CONFIG AND CXX)
  set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
  run(${PKG_CONFIG} --cflags --libs basekit64)
  string(STRIP "${last_output}" flags)
  separate_arguments(flags UNIX_COMMAND "${flags}")
  run(${CXX} ${SOURCE_DIR}/tests/package/consumer/main.cpp -o ${WORK_DIR}/by-pkg-config ${flags})
  run(${WORK_DIR}/by-pkg-config ${prefix}/lib/basekit64/libBaseKit64.so)
  message(STATUS "pkg-config: ${last_output}")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
