#!/usr/bin/env bash
# glslc as ggml's shader generator runs it (glslc [options] INPUT -o OUTPUT [-MD -MF DEPFILE]
# [-DNAME=VALUE...]), with each compiled shader kept in ccache's folder. The key is the shader's
# source text and everything in its folder it may include, glslc's version and every option but
# the output paths: the same release compiled anywhere gives the same SPIR-V. Without ccache, or
# with a call of another form, it is plain glslc.
set -uo pipefail
export LC_ALL=C

glslc=$(command -v glslc) || { echo "glslc-cache: glslc is not installed" >&2; exit 127; }
cache_root=${CCACHE_DIR:-$(ccache --get-config cache_dir 2>/dev/null)}
[ -n "$cache_root" ] || exec "$glslc" "$@"

input="" output="" depfile=""
options=()
args=("$@")
for ((i = 0; i < ${#args[@]}; i++)); do
  case "${args[i]}" in
    -o) output=${args[++i]} ;;
    -MF) depfile=${args[++i]} ;;
    -MD) ;;
    -*) options+=("${args[i]}") ;;
    *) input=${args[i]} ;;
  esac
done
[ -n "$input" ] && [ -n "$output" ] && [ "$output" != - ] || exec "$glslc" "$@"

key=$({
  "$glslc" --version
  printf '%s\n' "${options[@]}"
  basename "$input"
  # The shader and whatever it includes: the whole folder, in the shell's sorted order.
  cat "$(dirname "$input")"/*.glsl "$(dirname "$input")"/*.comp
} | sha256sum | cut -c1-64)
cached=$cache_root/voxaria-glslc/${key:0:2}/$key.spv

if [ ! -f "$cached" ]; then
  "$glslc" "$@" || exit
  # A cache that cannot be written costs the next build time, not this one its shader; glslc's
  # caller takes anything on standard error for a failure, so nothing is said.
  { mkdir -p "$(dirname "$cached")" && cp "$output" "$cached.$$" && mv "$cached.$$" "$cached"; } 2>/dev/null
  exit 0
fi
cp "$cached" "$output" || exit
# The generator rewrites the dependency file's first path; the includes' own times no longer matter
# to a source release that never changes in place.
[ -z "$depfile" ] || printf '%s: %s\n' "$output" "$input" >"$depfile"
