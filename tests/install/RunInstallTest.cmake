# Script of the install test (cmake -P). Inputs: BUILD_DIR, WORK_DIR, CONSUMER_DIR,
# GENERATOR, CXX, CXX_FLAGS, LINK_FLAGS, USE_LIBCXX, PKG_CONFIG, and for a cross build
# TOOLCHAIN_FILE and EMULATOR (its command, words apart by spaces; empty when native).
cmake_minimum_required(VERSION 3.25)

set(kExpectedOutput "consumer: eventfd created and closed, thread id matches\n")

# Runs a command and stops the test with its output when it fails.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out
    ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}\n${err}")
  endif()
  set(RUN_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

# A cross-built consumer runs through the emulator: the host cannot execute it directly.
separate_arguments(emulator UNIX_COMMAND "${EMULATOR}")

function(expect_consumer_output program)
  run(${emulator} ${program})
  if(NOT RUN_OUTPUT STREQUAL kExpectedOutput)
    message(FATAL_ERROR "${program} printed:\n${RUN_OUTPUT}\nexpected:\n${kExpectedOutput}")
  endif()
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

set(flags "${CXX_FLAGS}")
if(USE_LIBCXX)
  string(APPEND flags " -stdlib=libc++")
endif()
set(linkFlags "${LINK_FLAGS}")
if(USE_LIBCXX)
  string(APPEND linkFlags " -stdlib=libc++")
endif()

# Through the CMake package, for the same target as the build tree.
set(toolchain "")
if(TOOLCHAIN_FILE)
  set(toolchain -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE})
endif()
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/cmake-consumer -G ${GENERATOR}
  ${toolchain} -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${flags}"
  "-DCMAKE_EXE_LINKER_FLAGS=${linkFlags}" -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-consumer)
expect_consumer_output(${WORK_DIR}/cmake-consumer/tavrel_consumer)

# Through pkg-config, with the compiler alone.
file(GLOB_RECURSE pcFile ${prefix}/*/tavrel-sys.pc)
if(NOT pcFile)
  message(FATAL_ERROR "tavrel-sys.pc is not installed under ${prefix}")
endif()
get_filename_component(pcDir "${pcFile}" DIRECTORY)
run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pcDir} ${PKG_CONFIG} --cflags --libs tavrel-sys)
separate_arguments(pcFlags UNIX_COMMAND "${RUN_OUTPUT}")
separate_arguments(compileFlags UNIX_COMMAND "${flags}")
separate_arguments(linkerFlags UNIX_COMMAND "${linkFlags}")
run(${CXX} -std=c++17 ${compileFlags} ${CONSUMER_DIR}/main.cpp ${pcFlags} ${linkerFlags}
  -o ${WORK_DIR}/pkg-config-consumer)
expect_consumer_output(${WORK_DIR}/pkg-config-consumer)
