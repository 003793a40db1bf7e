# cmake -DCHECK=<cmake/CheckLayers.cmake> -DWORK=<scratch folder> -P CheckLayersTests.cmake
# The layer check must refuse a component that reaches a Linux backend, App or a system's headers,
# in every spelling, naming the file and line; and accept one that stays on its seams.
file(REMOVE_RECURSE ${WORK})
file(WRITE ${WORK}/layers.cmake "set(layer_core_sees core seams)\nset(layer_seams_sees seams)
set(layer_linux_x11_sees linux_x11 seams)\nset(layer_app_sees app core seams)\nset(owner_Platform/Seam.h seams)
set(owner_Platform/Linux/X11/X11Display.h linux_x11)\nset(owner_App/AppDelegate.h app)
set(owner_Dictation/Component.cpp core)\n")
foreach(header Platform/Seam.h Platform/Linux/X11/X11Display.h App/AppDelegate.h)
  file(WRITE ${WORK}/Sources/${header} "")
endforeach()
foreach(include "\"../Platform/Seam.h\"" "\"../Platform/Linux/X11/X11Display.h\"" "\"Platform/Linux/X11/X11Display.h\""
    "<Platform/Linux/X11/X11Display.h>" "<App/AppDelegate.h>" "\"../App/AppDelegate.h\"" "<QAudioSource>"
    "<QtMultimedia/QAudioSource>" "<QtDBus/QDBusMessage>" "<X11/Xlib.h>" "<qpa/qplatformnativeinterface.h>")
  file(WRITE ${WORK}/Sources/Dictation/Component.cpp "// a component\n#include ${include}\n")
  execute_process(COMMAND ${CMAKE_COMMAND} -DSOURCES_DIR=${WORK}/Sources -DLAYER_MAP=${WORK}/layers.cmake -P ${CHECK}
    RESULT_VARIABLE failed ERROR_VARIABLE output)
  if(include MATCHES "Seam" AND failed)
    message(FATAL_ERROR "the check refused a component including its seam:\n${output}")
  elseif(NOT include MATCHES "Seam" AND NOT output MATCHES "Dictation/Component.cpp:2: #include ")
    message(FATAL_ERROR "the check let a component #include ${include}:\n${output}")
  endif()
endforeach()
