#!/usr/bin/env bash
# The Debian package of this build: its contents and fields checked, passed through lintian,
# desktop-file-validate and appstreamcli, unpacked, its whisper-cli run on the CPU code it ships and
# its voxaria started on the harness's desktop until its tray icon shows.
# Usage: PackageTests.sh BUILD_DIR VERSION WHISPER_BUILT (1 when the build made whisper-cli).
set -uo pipefail
build=$1 version=$2 whisper=$3
app=app.voxaria.Voxaria
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
skip() { echo "SKIPPED: $*"; [ "${CI:-}" = true ] && exit 1; exit 77; } # in CI a skip fails

for tool in cpack dpkg-deb dpkg-shlibdeps lintian desktop-file-validate appstreamcli xwininfo xprop; do
  command -v "$tool" >/dev/null || skip "$tool is not installed (scripts/install-deps.sh installs it)"
done

work=$(mktemp -d "${TMPDIR:-/tmp}/voxaria-package.XXXXXX")
app_pid=""
cleanup() { [ -n "$app_pid" ] && kill "$app_pid" 2>/dev/null && wait "$app_pid" 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT

(cd "$build" && cpack -G DEB -B "$work/out" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; exit 1; }
deb=$(ls "$work"/out/voxaria_"$version"_*.deb 2>/dev/null) || { cat "$work/cpack.log"; exit 1; }
echo "package: $deb"

# Exactly the program, its whisper-cli (in a folder of their own: bin/whisper-cli belongs to the
# distribution's whisper.cpp) and its desktop files; whisper-cli's libraries are left out of the list.
program_files="./usr/libexec/voxaria/voxaria"
[ "$whisper" = 1 ] && program_files+=$'\n./usr/libexec/voxaria/whisper-cli'
expected="./usr/bin/voxaria
$program_files
./usr/share/applications/$app.desktop
./usr/share/doc/voxaria/changelog.gz
./usr/share/doc/voxaria/copyright
./usr/share/icons/hicolor/scalable/apps/$app.svg
./usr/share/man/man1/voxaria.1.gz
./usr/share/metainfo/$app.metainfo.xml
./usr/share/voxaria/help/ajuda.html"
files=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ && $6 !~ /^[.]\/usr\/libexec\/voxaria\/lib(whisper|ggml)/ {print $6}' | sort)
[ "$files" = "$expected" ] || fail "file list differs:$(diff <(echo "$expected") <(echo "$files"))"

field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package)" = voxaria ] || fail "Package: $(field Package)"
[ "$(field Version)" = "$version" ] || fail "Version: $(field Version), expected $version"
recommends="yt-dlp, pulseaudio-utils"
[ -f "$build/bin/libggml-vulkan.so" ] && recommends+=", libvulkan1"
[ "$(field Recommends)" = "$recommends" ] || fail "Recommends: $(field Recommends), expected $recommends"
# whisper-cli's Vulkan module links the loader, yet the package must install where there is none.
field Depends | grep -q "\blibvulkan1\b" && fail "Depends names the Vulkan loader: $(field Depends)"
[ "$(field Suggests)" = whisper.cpp ] || fail "Suggests: $(field Suggests)"
# Depends names the libraries the program really links, and Qt's Portuguese texts.
for library in libqt6widgets6 libqt6multimedia6 libsoxr0 libpulse0 libxtst6 qt6-translations-l10n; do
  field Depends | grep -q "\b$library\b" || fail "Depends lacks $library: $(field Depends)"
done
dpkg-deb -f "$deb" | sed 's/^/  /'

root=$work/root
dpkg-deb -x "$deb" "$root" || fail "dpkg-deb could not unpack the package"
desktop=$root/usr/share/applications/$app.desktop
desktop-file-validate "$desktop" || fail "desktop-file-validate"
appstreamcli validate --no-net --explain "$root/usr/share/metainfo/$app.metainfo.xml" || fail "appstreamcli validate"
# An absolute path to the installed program: KWin lets only the program it names type the paste keys.
exec_path=$(sed -n 's/^Exec=//p' "$desktop")
[ "$(readlink -f "$root$exec_path")" = "$root/usr/libexec/voxaria/voxaria" ] || fail "Exec does not name the installed program"
grep -qx 'X-KDE-Wayland-Interfaces=org_kde_kwin_fake_input' "$desktop" || fail "the desktop file asks KWin for no fake input"
[ -f "$root/usr/share/icons/hicolor/scalable/apps/$(sed -n 's/^Icon=//p' "$desktop").svg" ] || fail "Icon names no installed icon"

# The packaged whisper-cli takes the best CPU variant it ships for this CPU, and still transcribes
# with the baseline x86-64 one alone, as on the oldest CPU; no Vulkan driver is offered.
whisper_runs() { # FOLDER NAME: runs FOLDER/whisper-cli on the test clip; its log in $work/NAME.log
  VK_ICD_FILENAMES=/nonexistent "$1/whisper-cli" -m "$build/_deps/whisper.cpp/source/models/for-tests-ggml-tiny.bin" \
    -f "$(dirname "$0")/../data/speech/jfk.wav" -l en -ac 64 -bs 1 -bo 1 -nf -otxt -of "$work/$2" >/dev/null 2>"$work/$2.log" &&
    [ -f "$work/$2.txt" ] || { cat "$work/$2.log"; return 1; }
}
program=$root/usr/libexec/voxaria
if [ "$whisper" = 1 ]; then
  variants=$(cd "$program" && ls libggml-cpu-*.so 2>/dev/null | tr '\n' ' ')
  echo "whisper-cli's CPU variants: $variants"
  [ "$(echo "$variants" | wc -w)" -ge 2 ] || fail "the package ships $(echo "$variants" | wc -w) CPU variant(s) of whisper-cli"
  whisper_runs "$program" best || fail "the packaged whisper-cli did not transcribe"
  grep -o "loaded CPU backend from $program/libggml-cpu-[^ ]*" "$work/best.log" || fail "the packaged whisper-cli loaded no CPU code of its own"
  cp -a "$program" "$work/baseline"
  find "$work/baseline" -name 'libggml-cpu-*.so' ! -name libggml-cpu-x64.so -delete
  whisper_runs "$work/baseline" baseline || fail "whisper-cli with the baseline x86-64 CPU code alone did not transcribe"
  grep -q "loaded CPU backend from $work/baseline/libggml-cpu-x64.so" "$work/baseline.log" || fail "the baseline run did not load libggml-cpu-x64.so"
fi

lintian --fail-on error --display-info "$deb" | tee "$work/lintian.log"
[ "${PIPESTATUS[0]}" -eq 0 ] || fail "lintian reports errors"

[ "$failures" -eq 0 ] || { echo "$failures check(s) failed"; exit 1; }
tray=$(xwininfo -root -tree 2>/dev/null | awk '/\("panel" "trayer"\)/ {print $1; exit}')
[ -n "$tray" ] || skip "no desktop with a tray to start the unpacked program on (run under scripts/with-harness.sh)"

# The unpacked program, with folders of its own, until its icon is embedded in the tray and it
# names the whisper-cli of its own folder (started through the /usr/bin link).
home=$work/home
mkdir -p "$home/.config" "$home/.local/share" "$home/.cache" "$work/tmp"
HOME=$home XDG_CONFIG_HOME=$home/.config XDG_DATA_HOME=$home/.local/share XDG_CACHE_HOME=$home/.cache \
  TMPDIR=$work/tmp env -u QT_QPA_PLATFORM "$root/usr/bin/voxaria" >"$work/voxaria.log" 2>&1 &
app_pid=$!
shows_icon() { # ours by its process id: another voxaria would have an icon there too
  for window in $(xwininfo -tree -id "$tray" | awk '/\("voxaria" "Voxaria"\)/ {print $1}'); do
    xprop -id "$window" _NET_WM_PID | grep -q "= $app_pid\$" && return 0
  done
  return 1
}
for _ in $(seq 300); do
  shows_icon && { [ "$whisper" != 1 ] || grep -qF "whisper-cli: \"$program/whisper-cli\"" "$work/voxaria.log"; } &&
    { echo "tray icon shown"; exit 0; }
  kill -0 "$app_pid" 2>/dev/null || break
  sleep 0.1
done
cat "$work/voxaria.log"
xwininfo -root -tree
fail "the unpacked voxaria showed no tray icon, or did not name the whisper-cli beside it"
exit 1
