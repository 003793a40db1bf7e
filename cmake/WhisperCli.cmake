# whisper.cpp's whisper-cli, built from its release source as a program of its own and put beside
# the voxaria executable (bin/whisper-cli), the first place WhisperTranscriber looks. Voxaria only
# ever runs it as a child; nothing of whisper.cpp is linked into Voxaria.
#
# The source is a local copy of the release when there is one (VOXARIA_WHISPER_SOURCE, by default
# the shared vendor copy beside the repository), else GitHub's archive of the release tag, fetched
# once at configure time into the build folder. Either way its SHA-256 must match. Without either,
# Voxaria still builds and configure says how to provide whisper-cli.
#
# Backends: whisper-cli is built with ggml's backends as modules it loads at run time
# (GGML_BACKEND_DL, which requires BUILD_SHARED_LIBS), so the one build serves every machine. The
# CPU backend comes once per x86-64 CPU family (GGML_CPU_ALL_VARIANTS) and whisper-cli loads the
# best one the CPU runs; VOXARIA_PORTABLE_CPU=OFF builds a single one tuned for the build machine
# instead (GGML_NATIVE), linked into libggml with the other backends, for a local build only. The Vulkan backend (GGML_VULKAN) is one more module:
# where a Vulkan driver shows a GPU, whisper-cli runs on it; where there is no loader, no driver or
# the driver fails, the module does not load or finds no device and whisper-cli stays on the CPU.
# So whisper-cli comes with its libwhisper, libggml and libggml-* modules, found beside it through an
# $ORIGIN run path, and all of them are installed together in Voxaria's program folder.
#
# ggml-vulkan compiles some 1,500 compute shaders with glslc while it builds. ccache cannot see
# those runs, so glslc is called through cmake/glslc-cache.sh, which keeps each shader's SPIR-V in
# ccache's folder under the hash of the source release and glslc's options: a fresh clone on a
# machine that built whisper-cli before compiles no shader again.
include(ExternalProject)
include(${CMAKE_CURRENT_LIST_DIR}/ChildBuild.cmake)

option(VOXARIA_BUILD_WHISPER_CLI "Build whisper.cpp's whisper-cli and install it beside voxaria" ON)
option(VOXARIA_PORTABLE_CPU "Build whisper-cli for any x86-64 CPU, choosing its CPU code at run time (OFF: this CPU only)" ON)
option(VOXARIA_WHISPER_VULKAN "Build whisper-cli's Vulkan backend, used where a Vulkan GPU is found" ON)

set(VOXARIA_WHISPER_VERSION 1.9.3)
# The tag v1.9.3 is commit 371b5a7561823ab2bb32142d2751e35e7534727b; GitHub's archive of it has the
# top folder whisper.cpp-1.9.3/ and is byte for byte the shared vendor copy.
set(VOXARIA_WHISPER_URL "https://github.com/ggml-org/whisper.cpp/archive/refs/tags/v${VOXARIA_WHISPER_VERSION}.tar.gz")
set(VOXARIA_WHISPER_SHA256 e0f7cc089531c32738c57c51dbe5ae14337c6781a59daf2d6411e7c0838671fd)

set(whisper_shared_copy "${PROJECT_SOURCE_DIR}/../shared/vendor/whisper.cpp-${VOXARIA_WHISPER_VERSION}.tar.gz")
set(whisper_default_source "")
if(EXISTS "${whisper_shared_copy}")
  cmake_path(NORMAL_PATH whisper_shared_copy OUTPUT_VARIABLE whisper_default_source)
endif()
set(VOXARIA_WHISPER_SOURCE "${whisper_default_source}" CACHE FILEPATH
  "A local copy of whisper.cpp-${VOXARIA_WHISPER_VERSION}.tar.gz; empty or missing: download it")

# Sets `out` to a verified archive in the build folder, fetched once; empty when it cannot be had.
# A machine without network fails fast: the timeouts keep configure from hanging on it.
function(voxaria_download_whisper_source out)
  set(archive "${PROJECT_BINARY_DIR}/_deps/whisper.cpp-${VOXARIA_WHISPER_VERSION}.tar.gz")
  if(NOT EXISTS "${archive}")
    file(DOWNLOAD "${VOXARIA_WHISPER_URL}" "${archive}.part" TIMEOUT 120 INACTIVITY_TIMEOUT 10 STATUS status)
    list(GET status 0 code)
    if(code EQUAL 0)
      file(SHA256 "${archive}.part" hash)
      if(hash STREQUAL VOXARIA_WHISPER_SHA256)
        file(RENAME "${archive}.part" "${archive}")
      endif()
    endif()
    file(REMOVE "${archive}.part")
  endif()
  if(EXISTS "${archive}")
    set(${out} "${archive}" PARENT_SCOPE)
  else()
    set(${out} "" PARENT_SCOPE)
  endif()
endfunction()

# whisper.cpp's own test models (a vocabulary-only Whisper model, the real Silero VAD model) the
# tests and benchmarks run whisper-cli on.
set(VOXARIA_WHISPER_MODELS_DIR "${PROJECT_BINARY_DIR}/_deps/whisper.cpp/source/models")

# A sanitizer build runs the whisper-cli another build of this tree made, uninstrumented like the
# distribution's: whisper-cli is only ever a child process, so instrumenting it would find nothing of
# ours, and building it again would cost as much as the rest of the tree.
set(VOXARIA_WHISPER_CLI_FROM "" CACHE PATH "Another build folder whose whisper-cli this one copies beside voxaria instead of building its own")
if(VOXARIA_WHISPER_CLI_FROM)
  set(VOXARIA_WHISPER_BIN_DIR "${VOXARIA_WHISPER_CLI_FROM}/_deps/whisper.cpp/build/bin")
  set(VOXARIA_WHISPER_MODELS_DIR "${VOXARIA_WHISPER_CLI_FROM}/_deps/whisper.cpp/source/models")
  if(NOT EXISTS "${VOXARIA_WHISPER_BIN_DIR}/whisper-cli")
    message(FATAL_ERROR "VOXARIA_WHISPER_CLI_FROM=${VOXARIA_WHISPER_CLI_FROM} holds no built whisper-cli "
      "(${VOXARIA_WHISPER_BIN_DIR}/whisper-cli): build that folder first.")
  endif()
  add_custom_target(whisper_cli ALL
    COMMAND ${CMAKE_COMMAND} -E copy_directory "${VOXARIA_WHISPER_BIN_DIR}" "${PROJECT_BINARY_DIR}/bin"
    BYPRODUCTS "${PROJECT_BINARY_DIR}/bin/whisper-cli")
  return()
endif()

if(NOT VOXARIA_BUILD_WHISPER_CLI)
  return()
endif()

if(VOXARIA_WHISPER_SOURCE AND EXISTS "${VOXARIA_WHISPER_SOURCE}")
  set(whisper_archive "${VOXARIA_WHISPER_SOURCE}")
else()
  voxaria_download_whisper_source(whisper_archive)
endif()
if(NOT whisper_archive)
  message(WARNING "whisper-cli will not be built: no copy of whisper.cpp ${VOXARIA_WHISPER_VERSION} at "
    "'${VOXARIA_WHISPER_SOURCE}' and it could not be downloaded from ${VOXARIA_WHISPER_URL}. "
    "Download that file and configure with -DVOXARIA_WHISPER_SOURCE=<its path>, or configure with "
    "-DVOXARIA_BUILD_WHISPER_CLI=OFF and install whisper-cli on PATH.")
  return()
endif()

# Only whisper-cli and what it links: no tests, server, SDL2, curl or FFmpeg. Warnings are whisper.cpp's
# business (its AVX-512 code prints many harmless ones). The linker strips the symbol tables, so the
# installed copies are as lean as Voxaria's own stripped program.
set(whisper_build_env "")
set(whisper_args
  -DCMAKE_BUILD_TYPE=Release
  -DCMAKE_C_COMPILER=${CMAKE_C_COMPILER}
  -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER}
  -DCMAKE_EXE_LINKER_FLAGS=-s
  -DCMAKE_SHARED_LINKER_FLAGS=-s
  -DCMAKE_MODULE_LINKER_FLAGS=-s
  -DWHISPER_BUILD_IS_DEV=OFF
  -DWHISPER_BUILD_TESTS=OFF
  -DWHISPER_BUILD_EXAMPLES=ON
  -DWHISPER_BUILD_SERVER=OFF
  -DWHISPER_SDL2=OFF
  -DWHISPER_CURL=OFF
  -DWHISPER_COMMON_FFMPEG=OFF
  -DWHISPER_ALL_WARNINGS=OFF
  -DGGML_CCACHE=OFF)
voxaria_compiler_launcher_args(launcher_args)
list(APPEND whisper_args ${launcher_args})
if(CMAKE_CXX_COMPILER_LAUNCHER)
  # ggml-vulkan configures its shader generator while it builds, as a project of its own: CMake
  # takes the launcher from the environment there.
  set(whisper_build_env "CMAKE_C_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER}" "CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER}")
endif()
list(APPEND whisper_args -DBUILD_SHARED_LIBS=ON -DCMAKE_BUILD_WITH_INSTALL_RPATH=ON "-DCMAKE_INSTALL_RPATH=\$ORIGIN")
# ggml refuses a native CPU backend as a module: the local build links its backends in instead.
if(VOXARIA_PORTABLE_CPU)
  list(APPEND whisper_args -DGGML_BACKEND_DL=ON -DGGML_NATIVE=OFF -DGGML_CPU_ALL_VARIANTS=ON)
else()
  list(APPEND whisper_args -DGGML_BACKEND_DL=OFF -DGGML_NATIVE=ON)
endif()
set(VOXARIA_WHISPER_HAS_VULKAN OFF)
if(VOXARIA_WHISPER_VULKAN)
  find_package(Vulkan QUIET COMPONENTS glslc)
  find_package(SPIRV-Headers CONFIG QUIET)
  if(Vulkan_FOUND AND Vulkan_glslc_FOUND AND SPIRV-Headers_FOUND)
    set(VOXARIA_WHISPER_HAS_VULKAN ON)
    set(glslc_cache "${PROJECT_SOURCE_DIR}/cmake/glslc-cache.sh")
    list(APPEND whisper_args -DGGML_VULKAN=ON "-DVulkan_GLSLC_EXECUTABLE=${glslc_cache}")
  else()
    message(WARNING "whisper-cli will run on the CPU only: building its Vulkan backend needs the Vulkan "
      "headers, glslc and the SPIR-V headers (scripts/install-deps.sh build installs them), or configure "
      "with -DVOXARIA_WHISPER_VULKAN=OFF.")
  endif()
endif()

set(whisper_prefix "${PROJECT_BINARY_DIR}/_deps/whisper.cpp")
# whisper.cpp's bin/ holds whisper-cli and, in a portable build, the libraries it loads: the whole
# folder goes beside voxaria and into the package.
set(VOXARIA_WHISPER_BIN_DIR "${whisper_prefix}/build/bin")
# The source lies inside Voxaria's work tree: git must not take Voxaria's commit for whisper.cpp's.
ExternalProject_Add(whisper_cli
  URL "${whisper_archive}"
  URL_HASH SHA256=${VOXARIA_WHISPER_SHA256}
  DOWNLOAD_EXTRACT_TIMESTAMP OFF
  PREFIX "${whisper_prefix}"
  SOURCE_DIR "${whisper_prefix}/source"
  BINARY_DIR "${whisper_prefix}/build"
  PATCH_COMMAND ${CMAKE_COMMAND} -P "${PROJECT_SOURCE_DIR}/cmake/PatchWhisperVulkan.cmake"
  CMAKE_COMMAND ${CMAKE_COMMAND} -E env "GIT_CEILING_DIRECTORIES=${whisper_prefix}" ${CMAKE_COMMAND}
  CMAKE_ARGS ${whisper_args}
  BUILD_COMMAND ${CMAKE_COMMAND} -E env ${whisper_build_env} ${CMAKE_COMMAND} --build <BINARY_DIR> --target whisper-cli
  INSTALL_COMMAND ${CMAKE_COMMAND} -E copy_directory "${VOXARIA_WHISPER_BIN_DIR}" "${PROJECT_BINARY_DIR}/bin"
  BUILD_BYPRODUCTS "${PROJECT_BINARY_DIR}/bin/whisper-cli"
  USES_TERMINAL_BUILD ON)
