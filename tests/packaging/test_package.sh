#!/bin/sh
# Builds the Debian package, unpacks it into a fresh folder as an installation
# would lay it out, and runs what a user runs from there: the command-line
# demo, the manual page, and the program as the menu entry starts it.
set -eu
build_dir="$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cd "$build_dir"
cpack -G DEB > "$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; exit 1; }
deb=$(ls -t "$build_dir"/quorvex_*_*.deb | head -1)
echo "package: $deb"
dpkg-deb -I "$deb" | grep -q "Depends:.*libqt5widgets5" || { echo "no Qt dependency recorded"; exit 1; }
root="$work/root"
dpkg-deb -x "$deb" "$root"

for f in usr/bin/quorvex usr/bin/quorvex-cli usr/bin/HtmlToPdf usr/lib/liblumicrest.so \
         usr/share/quorvex/Help/index.html usr/share/applications/com.veltrano.Quorvex.desktop \
         usr/share/mime/packages/quorvex-fingerprint.xml usr/share/metainfo/com.veltrano.Quorvex.metainfo.xml \
         usr/share/icons/hicolor/scalable/apps/com.veltrano.Quorvex.svg usr/share/man/man1/quorvex-cli.1.gz; do
    [ -e "$root/$f" ] || { echo "missing from the package: $f"; exit 1; }
done
if command -v desktop-file-validate > /dev/null; then
    desktop-file-validate "$root/usr/share/applications/com.veltrano.Quorvex.desktop"
fi
zcat "$root/usr/share/man/man1/quorvex-cli.1.gz" | grep -q "analyze" || { echo "manual page without the commands"; exit 1; }

# Nothing of the build tree may be needed: a clean environment, a fresh home.
export HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config" XDG_DATA_HOME="$work/home/.local/share"
mkdir -p "$HOME"
unset QUORVEX_PROGRAM LD_LIBRARY_PATH || true
"$root/usr/bin/quorvex-cli" demo --out "$work/demo" > "$work/demo.log" 2>&1 || { cat "$work/demo.log"; exit 1; }
grep -Eq "All 14 photos classified right|No photo classified wrong" "$work/demo.log" || { cat "$work/demo.log"; exit 1; }
[ -s "$work/demo/report.pdf" ] || { echo "the demo wrote no report"; exit 1; }

# The program as the menu starts it, with a fingerprint to open: its help
# pages and its converter must be found in the installed places.
exec_line=$(sed -n 's/^Exec=//p' "$root/usr/share/applications/com.veltrano.Quorvex.desktop")
program=$(echo "$exec_line" | cut -d' ' -f1)
QT_QPA_PLATFORM=offscreen QUORVEX_SELF_TEST=1 "$root/usr/bin/$program" "$work/demo/camera-a.fnp" > "$work/self.log" 2>&1 || {
    cat "$work/self.log"; exit 1; }
cat "$work/self.log"
grep -q "help: $root/usr/share/quorvex/Help/index.html (found)" "$work/self.log"
grep -q "report converter: $root/usr/bin/HtmlToPdf (found)" "$work/self.log"
echo "package works from $root"
