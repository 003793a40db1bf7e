#!/bin/sh
# dpkg-shlibdeps as CPack runs it, with the Vulkan loader left out of Depends: only whisper-cli's
# Vulkan module links it, and whisper-cli runs on the CPU when that module cannot load, so the
# package recommends the loader instead of requiring it.
exec dpkg-shlibdeps -xlibvulkan1 "$@"
