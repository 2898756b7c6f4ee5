#!/usr/bin/env bash
# Fuzzes the multipart reader with libFuzzer (clang), under AddressSanitizer and
# UndefinedBehaviorSanitizer. RUNS sets the number of inputs (default one million).
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
root="$(cd "$here/../../.." && pwd)"
out="${OUT_DIR:-$(mktemp -d /tmp/ravlet-fuzz.XXXXXX)}"
mkdir -p "$out/corpus"
printf 'B\n--B\r\nContent-Disposition: form-data; name="file"; filename="cv.txt"\r\nContent-Type: text/plain\r\n\r\nhello\r\n--B--\r\n' \
    > "$out/corpus/seed"
clang++ -std=c++20 -g -O1 -fPIC -fsanitize=fuzzer,address,undefined -DQT_NO_CAST_FROM_ASCII \
    -I "$root/server/routes" $(pkg-config --cflags Qt6Core) \
    "$here/MultipartFuzz.cpp" "$root/server/routes/Multipart.cpp" $(pkg-config --libs Qt6Core) \
    -o "$out/multipart_fuzz"
"$out/multipart_fuzz" -runs="${RUNS:-1000000}" -max_len=4096 "$out/corpus"
