#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer) and
# runs each for a bounded time, starting from seeds made of the generator's own scene and packages,
# the committed seeds and the regression files. Prints executions and coverage per target; a crash,
# a leak, a hang (an input over 10 s) or running out of memory fails the run, and the input that
# did it is left under build-fuzz/fuzz-run/artifacts/<target>/.
#
#   scripts/fuzz.sh                 # 30 s per target (CI)
#   scripts/fuzz.sh 600 zip exr     # longer, by hand, some targets
#
# The corpus grown by earlier runs stays in build-fuzz/fuzz-run/corpus/ and is reused.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
seconds=${1:-30}
shift || true

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
cmake --preset fuzz "${launcher[@]}" >/dev/null
cmake --build build-fuzz --target fuzz -j"$(nproc)"

all=()
for f in fuzz/*_fuzzer.cpp; do
  name=$(basename "$f" _fuzzer.cpp)
  all+=("$name")
done
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=("${all[@]}")

run=$root/build-fuzz/fuzz-run
seeds=$run/seeds
rm -rf "$seeds" "$run/artifacts" "$run/logs"
mkdir -p "$seeds" "$run/artifacts" "$run/logs"
for t in "${all[@]}"; do mkdir -p "$seeds/$t" "$run/corpus/$t" "$run/artifacts/$t"; done

# Seeds from the generator: a small two-framing scene, its published packages and catalog.
tools=$root/build-fuzz/tools
"$tools/turnelo-gen-scene" --out "$seeds/scene" --width 96 --height 54 --framings wide,mid >/dev/null
"$tools/turnelo-publish" --out "$seeds/site" --base "$seeds/scene" --framing "close=$seeds/scene/mid" >/dev/null 2>&1 || true
cp "$seeds/scene/manifest.json" "$seeds/manifest/"
find "$seeds/site" -name '*.json' -exec cp {} "$seeds/catalog/" \;
find "$seeds/scene" -name '*.exr' | sort | awk 'NR % 12 == 1' | while read -r f; do cp "$f" "$seeds/exr/$(echo "${f#"$seeds/scene/"}" | tr / _)"; done
find "$seeds/scene" -name '*.png' | sort | awk 'NR % 4 == 1' | while read -r f; do cp "$f" "$seeds/mask/$(echo "${f#"$seeds/scene/"}" | tr / _)"; done
# Small packages of the scene's own files, plain and hostile, as the installer tests make them.
python3 - "$seeds/scene" "$seeds/zip" <<'PY'
import os, sys, zipfile
scene, out = sys.argv[1], sys.argv[2]
exr = next(os.path.join(d, f) for d, _, fs in sorted(os.walk(scene)) for f in sorted(fs) if f.endswith('.exr'))
png = next(os.path.join(d, f) for d, _, fs in sorted(os.walk(scene)) for f in sorted(fs) if f.endswith('.png'))
def pack(name, entries, method):
    with zipfile.ZipFile(os.path.join(out, name), 'w', method) as z:
        for arcname, data in entries:
            if isinstance(data, zipfile.ZipInfo):
                z.writestr(data, arcname)
            else:
                z.writestr(arcname, data)
read = lambda p: open(p, 'rb').read()
manifest = read(os.path.join(scene, 'manifest.json'))[:2000]
plain = [('manifest.json', manifest), ('wide/masks/m.png', read(png)), ('wide/light/p.exr', read(exr))]
pack('stored.zip', plain, zipfile.ZIP_STORED)
pack('deflated.zip', plain, zipfile.ZIP_DEFLATED)
pack('nested.zip', [('Room/wide/' + n.split('/')[-1], d) for n, d in plain], zipfile.ZIP_DEFLATED)
pack('dotdot.zip', [('../outside.txt', b'x'), ('manifest.json', b'{}')], zipfile.ZIP_STORED)
link = zipfile.ZipInfo('wide/link'); link.external_attr = (0o120777 << 16)
pack('symlink.zip', [('../../etc', link), ('manifest.json', b'{}')], zipfile.ZIP_STORED)
PY
# Settings as the tools write them, with every value type.
defaults=("$tools/turnelo-defaults" --file "$seeds/settings/written.json")
"${defaults[@]}" write framing -string mid >/dev/null
"${defaults[@]}" write stackLimit -int 4 >/dev/null
"${defaults[@]}" write perfLogInterval -float 30 >/dev/null
"${defaults[@]}" write fxRecord -bool false >/dev/null
"${defaults[@]}" write desktopSnapshot -dict '{"xfce4-desktop:/desktop-icons/style":{"exists":true,"value":2}}' >/dev/null || true

export ASAN_OPTIONS=detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS=suppressions=$root/scripts/lsan.supp:print_suppressions=0

failed=()
printf '%-12s %12s %10s %10s %8s\n' target executions coverage features corpus
for t in "${targets[@]}"; do
  args=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
        -artifact_prefix="$run/artifacts/$t/")
  [ -f "fuzz/dict/$t.dict" ] && args+=(-dict="fuzz/dict/$t.dict")
  dirs=("$run/corpus/$t" "$seeds/$t")
  for d in "fuzz/seeds/$t" "fuzz/regressions/$t"; do [ -d "$d" ] && dirs+=("$d"); done
  log=$run/logs/$t.log
  status=0
  "build-fuzz/fuzz/${t}_fuzzer" "${args[@]}" "${dirs[@]}" >"$log" 2>&1 || status=$?
  execs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | grep -o '[0-9]*')
  ft=$(grep -o 'ft: [0-9]*' "$log" | tail -1 | grep -o '[0-9]*')
  corpus=$(find "$run/corpus/$t" -type f | wc -l)
  printf '%-12s %12s %10s %10s %8s\n' "$t" "${execs:-?}" "${cov:-?}" "${ft:-?}" "$corpus"
  if [ "$status" -ne 0 ]; then
    failed+=("$t")
    echo "---- $t failed (exit $status); its log ends:" >&2
    tail -40 "$log" >&2
    echo "---- the input is in $run/artifacts/$t/; once fixed, copy it to fuzz/regressions/$t/" >&2
  fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: findings in ${failed[*]}" >&2
  exit 1
fi
