#!/usr/bin/env bash
# Regenerates bench/data/vocabulary.txt, the English words the synthetic benchmark catalog is
# made of: the English tags of the emojibase-data package (MIT), most frequent first.
# Needs npm and node; the result is committed, so builds never run this.
set -euo pipefail

version=17.0.0
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

(cd "$work" && npm pack --silent "emojibase-data@$version" >/dev/null && tar xzf emojibase-data-*.tgz)

node - "$work/package/en/data.json" > "$root/bench/data/vocabulary.txt" <<'JS'
const data = require(process.argv[2]);
const count = new Map();
const add = (text) => {
  for (const w of String(text).toLowerCase().split(/[^a-z]+/)) {
    if (w.length >= 2) count.set(w, (count.get(w) || 0) + 1);
  }
};
const walk = (e) => {
  for (const t of e.tags || []) add(t);
};
data.forEach(walk);
const words = [...count.entries()].sort((a, b) => b[1] - a[1] || (a[0] < b[0] ? -1 : 1));
process.stdout.write(words.map(([w]) => w).join('\n') + '\n');
JS
echo "wrote $(wc -l < "$root/bench/data/vocabulary.txt") words to bench/data/vocabulary.txt"
