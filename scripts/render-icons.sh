#!/bin/sh
# Renders resources/svg/*.svg to the PNG files that resources.qrc embeds. Run it after you edit an SVG.
set -eu

window_icon_size=256 # pixels; task switchers show it large
icon_size=64         # pixels, twice the largest tool bar size; Qt scales it down

if ! command -v rsvg-convert >/dev/null 2>&1; then
    echo "render-icons.sh: rsvg-convert not found; install the package librsvg2-bin" >&2
    exit 1
fi

resources=$(cd "$(dirname "$0")/../resources" && pwd)

for source in "$resources"/svg/*.svg; do
    name=$(basename "$source" .svg)
    size=$icon_size
    if [ "$name" = Icon ]; then
        size=$window_icon_size
    fi
    rsvg-convert --width "$size" --height "$size" --output "$resources/$name.png" "$source"
done
