// SPDX-License-Identifier: MIT
#pragma once

#include "catalog/catalogjson.h"

#include <QStringList>
#include <cstdint>

// A realistic made-up catalog for benchmarks and the index's equivalence tests: real English
// words (the tags of emojibase-data) drawn with Zipf-like frequencies, every searchable field
// filled to typical lengths, popularity 0-1000. The same size and seed always give the same
// catalog, on every machine.
namespace SyntheticCatalog {
// The words, most frequent first.
const QStringList& vocabulary();
// `size` items; ids are "syn_" and the item's number.
MemeList generate(int size, std::uint64_t seed);
// `count` queries such as people type: one to three words, mostly from the catalog's own
// word mix, some stopped mid-word, a few with no match.
QStringList queries(int count, std::uint64_t seed);
// Every text a user sees while typing `query` one character at a time.
QStringList keystrokes(const QString& query);
} // namespace SyntheticCatalog
