#!/bin/bash
# Installs what was built, moves it, builds the examples against it with CMake and by the
# command lines of their READMEs, and plays with them.
#
# From CMake come: build_dir, libdir (relative to the prefix), the compilers CC and CXX,
# generator, and flags, which both the library and what uses it are built with.
set -euo pipefail
cd "$(dirname "$0")/../../examples"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export NOX_TRACE=1
unset DESTDIR PKG_CONFIG_PATH CFLAGS CXXFLAGS LDFLAGS LD_LIBRARY_PATH
read -ra flags <<<"$flags"

fail() { echo "FAILED: $*" >&2; exit 1; }
expect() { [ "$2" = "$3" ] || fail "$1: expected \"$2\", got \"$3\""; }

cmake --install "$build_dir" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/copy"
export PATH="$work/copy/bin:$PATH" PKG_CONFIG_LIBDIR="$work/copy/$libdir/pkgconfig"

# Each is a project of one language; its compiler is the only one that it may need.
build_with_cmake() {
    local language=${2%%=*}
    cmake -G "$generator" -S "$1" -B "$work/cmake/$1" "-DCMAKE_PREFIX_PATH=$work/copy" \
        "-DCMAKE_${language}_COMPILER=${2#*=}" "-DCMAKE_${language}_FLAGS=${flags[*]}" >/dev/null
    cmake --build "$work/cmake/$1"
}

# The one block of shell in the README that has pkg-config in it, with our compilers.
build_by_readme() {
    cc() { "$CC" "${flags[@]}" "$@"; }
    c++() { "$CXX" "${flags[@]}" "$@"; }
    mkdir -p "$work/readme/$1"
    cp "$1"/*.c* "$work/readme/$1"
    local command
    command=$(awk '/^```sh/ { inside = 1; block = ""; next }
                   /^```/ { if (inside && block ~ /pkg-config/) printf "%s", block; inside = 0 }
                   inside { block = block $0 "\n" }' "$1/README.md")
    (cd "$work/readme/$1" && eval "$command")
}

for example in plugin-c:C="$CC" plugin-cpp:CXX="$CXX" host:C="$CC"; do
    build_with_cmake "${example%%:*}" "${example#*:}" >"$work/log" 2>&1 || { cat "$work/log"; fail "CMake, $example"; }
    build_by_readme "${example%%:*}"
done

"$work/cmake/plugin-cpp/tone_test" >"$work/log" || { cat "$work/log"; fail "the test of tone"; }

# A WAV file of 16-bit samples at 8000 Hz, from CHANNELS and the bytes of the samples.
le32() { printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24)); }
write_wav() {
    local size
    size=$(stat -c %s "$2")
    printf "RIFF$(le32 $((36 + size)))WAVEfmt $(le32 16)\\x01\\x00\\x0$1\\x00$(le32 8000)" >"$3"
    printf "$(le32 $((16000 * $1)))\\x0$((2 * $1))\\x00\\x10\\x00data$(le32 "$size")" >>"$3"
    cat "$2" >>"$3"
}
samples() { tail -c +45 "$1" | od -An -v -td2 -w2 | xargs; }

# Left and right: 1000 3000, -1000 -3000, 32767 32767, -32768 32767, -32768 -32768
printf '\xe8\x03\xb8\x0b\x18\xfc\x48\xf4\xff\x7f\xff\x7f\x00\x80\xff\x7f\x00\x80\x00\x80' >"$work/bytes"
write_wav 2 "$work/bytes" "$work/stereo.wav"
head -c 160000 /dev/zero >"$work/bytes" # 10 s
write_wav 1 "$work/bytes" "$work/long.wav"

for way in cmake readme; do
    built=$work/$way
    for plugin in "$built"/plugin-*/nox*.so; do
        expect "exports of $plugin" plugin_desc "$(nm -D --defined-only "$plugin" | awk '{print $3}')"
        ! readelf -d "$plugin" | grep 'NEEDED.*libosa' || fail "$plugin brings an OS layer of its own"
    done

    cache=$built/cache
    nox-scan "$work/copy/$libdir/nox" "$built"/plugin-* -o "$cache" >/dev/null
    expect "peak of the tone" "level: 4000 frames at 8000 Hz; channel 1: peak 0.500000" \
        "$(nox-run -q --cache "$cache" 'tone frequency=1000 rate=8000 duration=500 ! mono ! levelsink name=level' |
            cut -d" " -f-10)"
    nox-run -q --cache "$cache" "wavsrc location=$work/stereo.wav ! mono channel=2 ! wavsink location=$built/right.wav"
    expect "right channel" "3000 -3000 32767 32767 -32768" "$(samples "$built/right.wav")"

    "$built/host/host" "$cache" "$work/stereo.wav" "$built/mixed.wav" mono
    expect "both channels" "2000 -2000 32767 0 -32768" "$(samples "$built/mixed.wav")"
    code=0
    error=$("$built/host/host" "$cache" "$work/bytes" "$built/none.wav" mono 2>&1) || code=$?
    expect "exit code of the host without a recording" 1 "$code"
    [[ $error == *"wavsrc: cannot read $work/bytes"* ]] || fail "the host does not say why: $error"
done

# Ctrl-C while it plays: the file ends early, and is whole.
output=$work/cut.wav
"$work/cmake/host/host" "$work/cmake/cache" "$work/long.wav" "$output" mono &
host=$!
while kill -0 $host && [ "$(stat -c %s "$output" 2>/dev/null || echo 0)" -le 44 ]; do sleep 0.01; done
kill -INT $host || fail "the host did not play"
wait $host || fail "the host ended with $? after SIGINT"
size=$(stat -c %s "$output")
[ "$size" -lt 160044 ] || fail "SIGINT did not end the stream"
expect "size in the header" $((size - 44)) "$(od -An -td4 -j40 -N4 "$output" | xargs)"
