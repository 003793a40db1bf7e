# cmake -DSOURCES_DIR=<Sources> -DLAYER_MAP=<build>/Sources/layers.cmake -P CheckLayers.cmake
# Resolves every include of every file under Sources/ to the file it names (a quoted include first
# beside the includer, then from Sources/) and fails when that file belongs to a layer the includer
# may not use. The layer map, written by Sources/CMakeLists.txt, gives each file's layer and the
# layers each may include.
cmake_minimum_required(VERSION 3.25)
include(${LAYER_MAP})

# A system's own headers, which resolve to no file of ours: a regular expression over the included
# name, then the layers that may include it, separated by commas.
set(system_rules
  "^(X11|xcb)/" "linux_x11"
  "^qpa/|/private/|^private/|_p\\.h$" "linux_x11"
  "^wayland-|^xkbcommon/|-client-protocol\\.h$" "linux_wayland"
  "^linux/input" "linux_input"
  "^pulse/|^soxr\\.h$" "linux_audio"
  "^transcribe[./]|^ggml" "linux_livespeech"
  "^libav[a-z]*/|^libsw[a-z]*/" "linux_media"
  "^QtMultimedia/|^QAudio|^QMedia|^QSoundEffect|^QCamera|^QVideo" "linux_audio,linux_desktop"
  "^QDBus|^QtDBus/" "linux_desktop,linux_kde,linux_portal"
  "^Qt(Gui|Widgets)/" "ui,app,linux_desktop,linux_x11")

# The layer of <relative> (a path under Sources/) into <out>; empty when it has none.
function(layer_of relative out)
  set(${out} "${owner_${relative}}" PARENT_SCOPE)
endfunction()

# Appends to `violations` what one include line breaks, if anything.
function(check_include source layer number included delimiter)
  get_filename_component(folder ${SOURCES_DIR}/${source} DIRECTORY)
  set(resolved "")
  if(delimiter STREQUAL "\"" AND EXISTS ${folder}/${included})
    set(resolved ${folder}/${included})
  elseif(EXISTS ${SOURCES_DIR}/${included})
    set(resolved ${SOURCES_DIR}/${included})
  endif()
  set(closing ">")
  if(delimiter STREQUAL "\"")
    set(closing "\"")
  endif()
  set(where "\n  ${source}:${number}: #include ${delimiter}${included}${closing}")
  if(resolved)
    cmake_path(NORMAL_PATH resolved)
    cmake_path(RELATIVE_PATH resolved BASE_DIRECTORY ${SOURCES_DIR} OUTPUT_VARIABLE target)
    layer_of("${target}" target_layer)
    if(NOT target_layer)
      string(APPEND violations "${where} names ${target}, which belongs to no layer")
    elseif(NOT target_layer IN_LIST layer_${layer}_sees)
      list(JOIN layer_${layer}_sees ", " usable)
      string(APPEND violations "${where} reaches ${target} of layer ${target_layer}; layer ${layer} may use only ${usable}")
    endif()
  else()
    set(remaining ${system_rules})
    while(remaining)
      list(POP_FRONT remaining pattern allowed)
      string(REPLACE "," ";" allowed_layers "${allowed}")
      if(included MATCHES "${pattern}" AND NOT layer IN_LIST allowed_layers)
        string(APPEND violations "${where} is a system header allowed only in layer ${allowed}, not in ${layer}")
      endif()
    endwhile()
  endif()
  set(violations "${violations}" PARENT_SCOPE)
endfunction()

file(GLOB_RECURSE sources RELATIVE ${SOURCES_DIR} ${SOURCES_DIR}/*.cpp ${SOURCES_DIR}/*.h)
set(violations "")
foreach(source ${sources})
  layer_of("${source}" layer)
  if(NOT layer)
    string(APPEND violations "\n  ${source} belongs to no layer (Sources/CMakeLists.txt lists none for it)")
    continue()
  endif()
  # One list element per line: brackets and semicolons of the code would split or join elements.
  file(READ ${SOURCES_DIR}/${source} text)
  string(REGEX REPLACE "[][;]" "_" text "${text}")
  string(REPLACE "\n" ";" lines "${text}")
  set(number 0)
  foreach(line IN LISTS lines)
    math(EXPR number "${number} + 1")
    if(line MATCHES "^[ \t]*#[ \t]*include[ \t]*([<\"])([^>\"]+)[>\"]")
      check_include(${source} ${layer} ${number} "${CMAKE_MATCH_2}" "${CMAKE_MATCH_1}")
    endif()
  endforeach()
endforeach()

if(violations)
  message(FATAL_ERROR "Includes that cross the layers:${violations}")
endif()
