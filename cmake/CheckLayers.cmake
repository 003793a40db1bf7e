# cmake -DSOURCES_DIR=<Sources> -P CheckLayers.cmake
# Fails when an include crosses a layer: a system's headers belong to its own folder under
# Platform/Linux/, Platform/Linux/ itself only to the composition root (main), and App/ to App/.

# Each rule: a regular expression over the include line, then the folders (relative to Sources/)
# where it may appear, separated by commas.
set(rules
  "<X11/|<xcb/|<qpa/" "Platform/Linux/X11/"
  "<wayland-|<xkbcommon/|-client-protocol\\.h" "Platform/Linux/Wayland/"
  "<linux/input" "Platform/Linux/Input/"
  "<pulse/|<soxr\\.h" "Platform/Linux/Audio/"
  "<transcribe[.]h|<transcribe/|<ggml" "Platform/Linux/LiveSpeech/"
  "<libav[a-z]*/|<libsw[a-z]*/" "Platform/Linux/Media/"
  "<QDBus|<QtDBus" "Platform/Linux/Desktop/,Platform/Linux/KDE/,Platform/Linux/Portal/"
  "\"Platform/Linux/" "Platform/Linux/,App/main.cpp"
  "\"App/" "App/")

file(GLOB_RECURSE sources RELATIVE ${SOURCES_DIR} ${SOURCES_DIR}/*.cpp ${SOURCES_DIR}/*.h)
set(violations "")
foreach(source ${sources})
  file(STRINGS ${SOURCES_DIR}/${source} includes REGEX "^[ \t]*#[ \t]*include")
  foreach(line ${includes})
    set(remaining ${rules})
    while(remaining)
      list(POP_FRONT remaining pattern allowed)
      if(NOT line MATCHES "${pattern}")
        continue()
      endif()
      set(permitted FALSE)
      string(REPLACE "," ";" allowed_list "${allowed}")
      foreach(prefix ${allowed_list})
        string(FIND "${source}" "${prefix}" position)
        if(position EQUAL 0)
          set(permitted TRUE)
        endif()
      endforeach()
      if(NOT permitted)
        string(APPEND violations "\n  ${source}: ${line} (allowed only in ${allowed})")
      endif()
    endwhile()
  endforeach()
endforeach()

if(violations)
  message(FATAL_ERROR "Includes that cross the layers:${violations}")
endif()
