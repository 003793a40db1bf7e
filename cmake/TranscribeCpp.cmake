# transcribe.cpp, the library the live engine (Platform/Linux/LiveSpeech/) recognises speech with,
# built from its release source as a project of its own and linked statically: the imported target
# `voxaria_transcribe` is libtranscribe with its ggml.
#
# The source is a local copy of the release when there is one (VOXARIA_TRANSCRIBE_SOURCE, by default
# the shared vendor copy beside the repository), checked against its SHA-256, else the release's
# commit, cloned from the project's repository.
#
# A build that already has the library (VOXARIA_TRANSCRIBE_PREFIX, the install folder of another
# build: scripts/test.sh points its sanitizer build at the main one) links that copy instead of
# compiling ggml again. The library is never built with the sanitizers: it is a separate CMake
# project, so Voxaria's own compile options do not reach it.
#
# CPU features: ggml is built without GGML_NATIVE, which in ggml means the fixed x86-64-v3 set (AVX,
# AVX2, FMA, F16C, BMI2): the same library on every build machine, so ccache serves a fresh clone,
# and it runs on any x86-64 CPU made since 2013. ggml's run-time CPU variants would need it as shared
# libraries, which a static library cannot be.
include(ExternalProject)
include(${CMAKE_CURRENT_LIST_DIR}/ChildBuild.cmake)

set(VOXARIA_TRANSCRIBE_VERSION 0.2.1)
set(VOXARIA_TRANSCRIBE_COMMIT ba1c9953a935cea053feddf0dfe3882cadf50dde)
set(VOXARIA_TRANSCRIBE_REPOSITORY "https://github.com/handy-computer/transcribe.cpp.git")
# The release archive of the tag (top folder transcribe.cpp-0.2.1/, without the samples, bindings and
# reports folders the build does not use).
set(VOXARIA_TRANSCRIBE_SHA256 cc389e29d855ce1718dea8b7e0d034109820817f20b1d66c670050d33f9815cc)

set(transcribe_shared_copy "${PROJECT_SOURCE_DIR}/../shared/vendor/transcribe.cpp-${VOXARIA_TRANSCRIBE_VERSION}.tar.gz")
set(transcribe_default_source "")
if(EXISTS "${transcribe_shared_copy}")
  cmake_path(NORMAL_PATH transcribe_shared_copy OUTPUT_VARIABLE transcribe_default_source)
endif()
set(VOXARIA_TRANSCRIBE_SOURCE "${transcribe_default_source}" CACHE FILEPATH
  "A local copy of transcribe.cpp-${VOXARIA_TRANSCRIBE_VERSION}.tar.gz; empty or missing: download it")
set(VOXARIA_TRANSCRIBE_PREFIX "" CACHE PATH
  "An installed transcribe.cpp ${VOXARIA_TRANSCRIBE_VERSION} (lib/ and include/) to link instead of building it")

set(transcribe_prefix "${PROJECT_BINARY_DIR}/_deps/transcribe.cpp")
set(transcribe_libraries transcribe ggml ggml-cpu ggml-base)

# Declares `voxaria_transcribe` on the installed library in `install_dir`.
function(voxaria_import_transcribe install_dir)
  # The include folder must exist when the target is declared, before the library is built.
  file(MAKE_DIRECTORY "${install_dir}/include")
  add_library(voxaria_transcribe INTERFACE)
  target_include_directories(voxaria_transcribe SYSTEM INTERFACE "${install_dir}/include")
  set(archives "")
  foreach(library ${transcribe_libraries})
    list(APPEND archives "${install_dir}/lib/lib${library}.a")
  endforeach()
  find_package(Threads REQUIRED)
  target_link_libraries(voxaria_transcribe INTERFACE ${archives} Threads::Threads ${CMAKE_DL_LIBS} m)
  set(VOXARIA_TRANSCRIBE_ARCHIVES "${archives}" PARENT_SCOPE)
endfunction()

if(VOXARIA_TRANSCRIBE_PREFIX)
  if(NOT EXISTS "${VOXARIA_TRANSCRIBE_PREFIX}/include/transcribe.h")
    message(FATAL_ERROR "VOXARIA_TRANSCRIBE_PREFIX=${VOXARIA_TRANSCRIBE_PREFIX} holds no installed transcribe.cpp "
      "(no include/transcribe.h): build it first, or leave the option empty to build it here.")
  endif()
  voxaria_import_transcribe("${VOXARIA_TRANSCRIBE_PREFIX}")
  return()
endif()

# Without the local copy the source is the pinned commit of the project's repository: git checks
# every object against the commit's hash, which pins the content as the archive's SHA-256 does.
if(VOXARIA_TRANSCRIBE_SOURCE AND EXISTS "${VOXARIA_TRANSCRIBE_SOURCE}")
  set(transcribe_source URL "${VOXARIA_TRANSCRIBE_SOURCE}" URL_HASH SHA256=${VOXARIA_TRANSCRIBE_SHA256} DOWNLOAD_EXTRACT_TIMESTAMP OFF)
else()
  message(STATUS "No copy of transcribe.cpp ${VOXARIA_TRANSCRIBE_VERSION} at '${VOXARIA_TRANSCRIBE_SOURCE}': the build clones "
    "commit ${VOXARIA_TRANSCRIBE_COMMIT} of ${VOXARIA_TRANSCRIBE_REPOSITORY}. Offline, download "
    "transcribe.cpp-${VOXARIA_TRANSCRIBE_VERSION}.tar.gz (SHA-256 ${VOXARIA_TRANSCRIBE_SHA256}) and configure with "
    "-DVOXARIA_TRANSCRIBE_SOURCE=<its path>.")
  set(transcribe_source GIT_REPOSITORY "${VOXARIA_TRANSCRIBE_REPOSITORY}" GIT_TAG ${VOXARIA_TRANSCRIBE_COMMIT} GIT_PROGRESS OFF)
endif()

# Only the library and its ggml: no examples, tests or tools, no GPU backend, no OpenMP, and no system
# BLAS, so the library and the package's dependencies are the same whatever the build machine has
# installed. Warnings are transcribe.cpp's business.
set(transcribe_args
  -DCMAKE_BUILD_TYPE=Release
  -DCMAKE_C_COMPILER=${CMAKE_C_COMPILER}
  -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER}
  "-DCMAKE_INSTALL_PREFIX=<INSTALL_DIR>"
  -DCMAKE_INSTALL_LIBDIR=lib
  -DBUILD_SHARED_LIBS=OFF
  -DTRANSCRIBE_BUILD_SHARED=OFF
  -DTRANSCRIBE_BUILD_TESTS=OFF
  -DTRANSCRIBE_BUILD_EXAMPLES=OFF
  -DTRANSCRIBE_BUILD_TOOLS=OFF
  -DTRANSCRIBE_INSTALL=ON
  -DTRANSCRIBE_USE_SYSTEM_BLAS=OFF
  -DTRANSCRIBE_USE_OPENMP=OFF
  -DTRANSCRIBE_METAL=OFF
  -DGGML_NATIVE=OFF
  -DGGML_ALL_WARNINGS=OFF
  -DGGML_CCACHE=OFF)
voxaria_compiler_launcher_args(launcher_args)
list(APPEND transcribe_args ${launcher_args})

set(transcribe_install "${transcribe_prefix}/install")
voxaria_import_transcribe("${transcribe_install}")
# The source lies inside Voxaria's work tree: git must not take Voxaria's commit for transcribe.cpp's.
ExternalProject_Add(transcribe_cpp
  ${transcribe_source}
  PREFIX "${transcribe_prefix}"
  SOURCE_DIR "${transcribe_prefix}/source"
  BINARY_DIR "${transcribe_prefix}/build"
  INSTALL_DIR "${transcribe_install}"
  CMAKE_COMMAND ${CMAKE_COMMAND} -E env "GIT_CEILING_DIRECTORIES=${transcribe_prefix}" ${CMAKE_COMMAND}
  CMAKE_ARGS ${transcribe_args}
  BUILD_BYPRODUCTS ${VOXARIA_TRANSCRIBE_ARCHIVES}
  USES_TERMINAL_BUILD ON)
add_dependencies(voxaria_transcribe transcribe_cpp)
