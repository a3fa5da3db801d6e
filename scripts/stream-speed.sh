#!/usr/bin/env bash
# The speed of kelvane-color's raw frame streams beside the pipe itself and beside ffmpeg's own
# filters, on the same frames in one run: ffmpeg's testsrc2 at 3840x2160 as rgb48le, fed from
# memory through a pipe and read from a pipe. Prints the processor, a table of best-of-N times
# and the two ratios (rounds of every job in turn, best of each):
#   matrix only / cat                       (the stream keeps up with the pipe: at most 1.25)
#   ffmpeg lut1d+colorchannelmixer+lut1d / the same job in kelvane-color   (at least 2)
# Usage: scripts/stream-speed.sh [FRAMES [RUNS]]     (default 8 frames, best of 5 rounds)
# KV_TOOL names the program (default build/release/stage/bin/kelvane-color, which
# scripts/run-main.sh --version builds and installs); KV_THREADS its --threads (default: all).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
frames="${1:-8}"
runs="${2:-5}"
tool="${KV_TOOL:-${root}/build/release/stage/bin/kelvane-color}"
threads="${KV_THREADS:-$(nproc)}"
size=3840x2160
for need in ffmpeg python3 "${tool}"; do
    command -v "${need}" >/dev/null || { echo "error: ${need} not found" >&2; exit 1; }
done

work="$(mktemp -d "${TMPDIR:-/dev/shm}/kv-stream-speed.XXXXXX")"
trap 'rm -rf "${work}"' EXIT
ffmpeg -v error -nostdin -f lavfi -i "testsrc2=size=${size}:rate=25" -frames:v "${frames}" \
    -f rawvideo -pix_fmt rgb48le "${work}/frames.raw"
# The job: a 1024-entry decoding curve in, a saturation matrix, the encoding curve out.
python3 - "${work}" <<'EOF'
import sys
for name, power in (("in.cube", 2.2), ("out.cube", 1 / 2.2)):
    with open(f"{sys.argv[1]}/{name}", "w") as f:
        f.write("LUT_1D_SIZE 1024\n")
        for i in range(1024):
            v = (i / 1023) ** power
            f.write(f"{v:.6f} {v:.6f} {v:.6f}\n")
EOF
matrix="1.2,-0.1,-0.1,-0.05,1.1,-0.05,0.02,-0.2,1.18"
mixer="rr=1.2:rg=-0.1:rb=-0.1:gr=-0.05:gg=1.1:gb=-0.05:br=0.02:bg=-0.2:bb=1.18"
kv=("${tool}" -q --threads "${threads}" --raw-input "${size}:rgb48le" - --raw-output rgb48le -o -)
ff=(ffmpeg -v error -nostdin -f rawvideo -pix_fmt rgb48le -s "${size}" -i -)

# The five jobs, each as: cat frames | JOB | cat > /dev/null.
job_cat() { cat; }
job_matrix() { "${kv[@]}" --matrix "${matrix}"; }
job_luts() {
    "${kv[@]}" --input-lut "${work}/in.cube" --matrix "${matrix}" --output-lut "${work}/out.cube"
}
job_mixer() { "${ff[@]}" -vf "colorchannelmixer=${mixer}" -f rawvideo -pix_fmt rgb48le -; }
job_ff_luts() {
    "${ff[@]}" -vf "lut1d=file=${work}/in.cube,colorchannelmixer=${mixer},lut1d=file=${work}/out.cube" \
        -f rawvideo -pix_fmt rgb48le -
}
jobs=(cat matrix mixer luts ff_luts)

# Best wall-clock seconds of each job over `runs` rounds; a round runs every job once, so that
# every job meets the same load on a shared machine.
declare -A best
for ((r = 0; r < runs; ++r)); do
    for job in "${jobs[@]}"; do
        t0=$(date +%s.%N)
        cat "${work}/frames.raw" | "job_${job}" | cat >/dev/null
        t1=$(date +%s.%N)
        best[${job}]=$(awk -v a="${t0}" -v b="${t1}" -v best="${best[${job}]:-}" \
            'BEGIN { t = b - a; printf "%.3f", (best == "" || t < best) ? t : best }')
    done
done

lscpu | sed -n 's/^\(Model name\|CPU family\|Model\|CPU(s)\):\s*/\1: /p'
echo "${frames} frames of testsrc2 ${size} rgb48le ($(stat -c %s "${work}/frames.raw") bytes)," \
    "cat frames | COMMAND | cat > /dev/null, best of ${runs} rounds, --threads ${threads}," \
    "tier $("${tool}" --info | sed -n 's/^frames at tier //p')"
printf '| %-64s | %7s |\n' "command" "seconds" "---" "---" \
    "cat" "${best[cat]}" \
    "kelvane-color --matrix" "${best[matrix]}" \
    "ffmpeg colorchannelmixer" "${best[mixer]}" \
    "kelvane-color --input-lut in.cube --matrix --output-lut out.cube" "${best[luts]}" \
    "ffmpeg lut1d + colorchannelmixer + lut1d" "${best[ff_luts]}"
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
echo "matrix only / cat: $(ratio "${best[matrix]}" "${best[cat]}") (target at most 1.25)"
echo "ffmpeg LUTs + matrix / kelvane-color LUTs + matrix: $(ratio "${best[ff_luts]}" "${best[luts]}")" \
    "(target at least 2)"
