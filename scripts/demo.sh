#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds Turnelo, prints the summary of the demo room that
# ships in scenes/room (rendered in Blender by tools/blender) and renders it by day and by night
# (PNG files in build/). Then, on $DISPLAY, starts the room on the desktop; without a display it
# says so and stops at the pictures.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc)"

demo="${TURNELO_DEMO_DIR:-$PWD/scenes/room}"
shots="$PWD/build"
echo "Resumo da cena:"
./build/tools/turnelo-scene validate "$demo"
echo "Luz agora ($(date +%H:%M)):"
./build/tools/turnelo-scene blend "$demo" --at "$(date +%H:%M)"

echo "Renderizando (Vulkan; software se não houver GPU)…"
./build/turnelo render "$demo" "$shots/demo-day.png" --framing mid --size 1280x720 --time 12:00 \
  --playing --album "Demo" --artist "Turnelo" --title "Side A" --track 2 --tracks 5 --duration 240 --position 90
./build/turnelo render "$demo" "$shots/demo-night.png" --framing wide --size 1280x720 --time 22:30 --rain 0.8 \
  --playing --album "Demo" --artist "Turnelo" --title "Side B" --track 4 --tracks 5 --duration 240 --position 30
echo "Imagens: $shots/demo-day.png e $shots/demo-night.png"

if [ -z "${DISPLAY:-}" ]; then
  echo "Sem tela (DISPLAY não definido): a sala não pode ir para a área de trabalho; veja as imagens acima."
  exit 0
fi
echo "Abrindo a sala na área de trabalho de $DISPLAY (Ctrl+C ou o menu da bandeja encerra)…"
TURNELO_SCENES_DIR="$demo" exec ./build/turnelo --music-setup-done
