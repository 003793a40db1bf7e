# What the builds of other projects (whisper.cpp, transcribe.cpp) take over from this one.

# Sets `out` to the CMake arguments that give a child build the parent's compiler launcher (ccache
# from scripts/build.sh), so a fresh clone rebuilds it from the cache; CCACHE_BASEDIR reaches the
# child build through the environment. Empty without a launcher.
function(voxaria_compiler_launcher_args out)
  set(args "")
  if(CMAKE_CXX_COMPILER_LAUNCHER)
    set(c_launcher ${CMAKE_C_COMPILER_LAUNCHER})
    if(NOT c_launcher)
      set(c_launcher ${CMAKE_CXX_COMPILER_LAUNCHER})
    endif()
    set(args "-DCMAKE_C_COMPILER_LAUNCHER=${c_launcher}" "-DCMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER}")
  endif()
  set(${out} "${args}" PARENT_SCOPE)
endfunction()
