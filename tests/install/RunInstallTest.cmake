# Script of the install test (cmake -P). Inputs: BUILD_DIR, SOURCE_DIR, WORK_DIR,
# CONSUMER_DIR, EXPORTS, GENERATOR, CXX, CXX_FLAGS, LINK_FLAGS, USE_LIBCXX, PKG_CONFIG, NM,
# and for a cross build TOOLCHAIN_FILE and EMULATOR (its command, words apart by spaces;
# empty when native).
cmake_minimum_required(VERSION 3.25)

# The README's examples, in order: the monitor prints its two state lines and what it saw;
# the Timer its state line and how often it expired.
set(kReadmeOutputs
  "^P2DrvEP-readme: logv:0 { P2DrvEP-readme \\.mEpollFd=[0-9]+ \\.mEventFd=[0-9]+ }
    { #attach=1 #detach=0 \\.mActive=1 \\.mFdObserverMap={ attach=\\[ \\([0-9]+, 0x[0-9a-f]+\\) \\] } }
signals seen: 1
$"
  "^{ Timer-tick \\.fd=[0-9]+ \\.event=80000001 }
expiries: 5
$")

# A program that includes the headers at a newer standard than the package's minimum: the
# package must leave the program's standard as it is.
set(kStandardProbe "#include <tavrel/Timer.h>
static_assert(__cplusplus >= 202002L, \"the package lowered the program's standard\");
")
set(kOldStandardRefusal "tavrel-sys headers need C\\+\\+17 or newer")

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

# Runs each README program given and checks its output against kReadmeOutputs, in order.
function(expect_outputs)
  foreach(program expected IN ZIP_LISTS ARGN kReadmeOutputs)
    run(${emulator} ${program})
    if(NOT RUN_OUTPUT MATCHES "${expected}")
      message(FATAL_ERROR "${program} printed:\n${RUN_OUTPUT}\nexpected:\n${expected}")
    endif()
  endforeach()
endfunction()

# Install, then move the tree: everything below must work from where it was moved to.
file(REMOVE_RECURSE ${WORK_DIR})
set(staging ${WORK_DIR}/staging)
set(prefix ${WORK_DIR}/moved/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${staging})
file(MAKE_DIRECTORY ${WORK_DIR}/moved)
file(RENAME ${staging} ${prefix})
file(GLOB_RECURSE packageFiles ${prefix}/*.cmake ${prefix}/*.pc)
foreach(file IN LISTS packageFiles)
  file(READ ${file} text)
  foreach(path IN ITEMS ${staging} ${BUILD_DIR} ${SOURCE_DIR})
    string(FIND "${text}" "${path}" found)
    if(NOT found EQUAL -1)
      message(FATAL_ERROR "${file} names ${path}")
    endif()
  endforeach()
endforeach()

# The libraries export exactly the public API listed in EXPORTS, as "<library> <symbol>"
# with the standard library's inline namespaces left out of the names.
set(exported "")
file(GLOB libraries ${prefix}/lib*/libtavrel_*.so)
foreach(library IN LISTS libraries)
  get_filename_component(name ${library} NAME)
  run(${NM} -D --defined-only -C ${library})
  string(REGEX REPLACE "(^|\n)[0-9a-f]+ [A-Za-z] " "\\1${name} " symbols "${RUN_OUTPUT}")
  string(REGEX REPLACE "std::(__1|__cxx11)::" "std::" symbols "${symbols}")
  string(REPLACE "[abi:cxx11]" "" symbols "${symbols}")
  string(APPEND exported "${symbols}")
endforeach()
string(REGEX REPLACE "\n$" "" exported "${exported}")
string(REPLACE "\n" ";" exported "${exported}")
list(SORT exported)
list(REMOVE_DUPLICATES exported)
file(STRINGS ${EXPORTS} expected REGEX "^[^#]")
list(SORT expected)
if(NOT exported STREQUAL expected)
  set(extra ${exported})
  list(REMOVE_ITEM extra ${expected})
  set(missing ${expected})
  list(REMOVE_ITEM missing ${exported})
  list(JOIN extra "\n  " extra)
  list(JOIN missing "\n  " missing)
  message(FATAL_ERROR "exported but not listed:\n  ${extra}\nlisted but not exported:\n  ${missing}")
endif()

# The README's examples, as the README shows them: every ```cpp block, in order.
file(READ ${SOURCE_DIR}/README.md readme)
set(readmePrograms "")
string(FIND "${readme}" "```cpp\n" start)
while(NOT start EQUAL -1)
  string(SUBSTRING "${readme}" ${start} -1 readme)
  string(REGEX REPLACE "^```cpp\n" "" readme "${readme}")
  string(FIND "${readme}" "\n```" end)
  string(SUBSTRING "${readme}" 0 ${end} program)
  list(LENGTH readmePrograms count)
  set(file ${WORK_DIR}/readme-${count}.cpp)
  file(WRITE ${file} "${program}\n")
  list(APPEND readmePrograms ${file})
  string(SUBSTRING "${readme}" ${end} -1 readme)
  string(FIND "${readme}" "```cpp\n" start)
endwhile()
list(LENGTH readmePrograms count)
list(LENGTH kReadmeOutputs expectedCount)
if(NOT count EQUAL expectedCount)
  message(FATAL_ERROR "README.md has ${count} C++ examples; the test knows ${expectedCount}")
endif()
set(standardProbe ${WORK_DIR}/standard-probe.cpp)
file(WRITE ${standardProbe} "${kStandardProbe}")

set(flags "${CXX_FLAGS} -Wall -Wextra -Werror")
set(linkFlags "${LINK_FLAGS}")
if(USE_LIBCXX)
  string(APPEND flags " -stdlib=libc++")
  string(APPEND linkFlags " -stdlib=libc++")
endif()

# Through the CMake package, for the same target as the build tree. The programs go as one
# argument, apart by '|': a list would be cut into arguments on its way.
set(toolchain "")
if(TOOLCHAIN_FILE)
  set(toolchain -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE})
endif()
string(REPLACE ";" "|" programsAsWords "${readmePrograms}")
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/cmake-consumer -G ${GENERATOR}
  ${toolchain} -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${flags}"
  "-DCMAKE_EXE_LINKER_FLAGS=${linkFlags}" -DCMAKE_PREFIX_PATH=${prefix}
  "-DREADME_PROGRAMS=${programsAsWords}" -DSTANDARD_PROBE=${standardProbe})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-consumer)
set(built "")
foreach(program IN LISTS readmePrograms)
  get_filename_component(name ${program} NAME_WE)
  list(APPEND built ${WORK_DIR}/cmake-consumer/${name})
endforeach()
expect_outputs(${built})

# Through pkg-config, with the compiler alone and the program's own standard. The .pc file
# names no runpath and no standard; the program gives both.
file(GLOB_RECURSE pcFile ${prefix}/*/tavrel-sys.pc)
get_filename_component(pcDir "${pcFile}" DIRECTORY)
run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pcDir} ${PKG_CONFIG} --cflags --libs tavrel-sys)
if(RUN_OUTPUT MATCHES "rpath|-std=")
  message(FATAL_ERROR "tavrel-sys.pc gives a runpath or a standard: ${RUN_OUTPUT}")
endif()
separate_arguments(pcFlags UNIX_COMMAND "${RUN_OUTPUT}")
run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pcDir} ${PKG_CONFIG} --cflags tavrel-sys)
separate_arguments(pcCflags UNIX_COMMAND "${RUN_OUTPUT}")
separate_arguments(compileFlags UNIX_COMMAND "${flags}")
separate_arguments(linkerFlags UNIX_COMMAND "${linkFlags}")
get_filename_component(libDir "${pcDir}" DIRECTORY)
set(built "")
foreach(program IN LISTS readmePrograms)
  get_filename_component(name ${program} NAME_WE)
  run(${CXX} -std=c++17 ${compileFlags} ${program} ${pcFlags} ${linkerFlags}
    -Wl,-rpath,${libDir} -o ${WORK_DIR}/pkg-config-${name})
  list(APPEND built ${WORK_DIR}/pkg-config-${name})
endforeach()
expect_outputs(${built})
run(${CXX} -std=c++20 ${compileFlags} -fsyntax-only ${standardProbe} ${pcCflags})
# An older standard is refused by the headers, in words that say why.
execute_process(COMMAND ${CXX} -std=c++14 ${compileFlags} -fsyntax-only ${standardProbe}
  ${pcCflags} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(result EQUAL 0 OR NOT out MATCHES "${kOldStandardRefusal}")
  message(FATAL_ERROR "C++14 was not refused as it should be (${result}):\n${out}")
endif()
