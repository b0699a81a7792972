// SPDX-License-Identifier: MIT
#include "searchtesthelpers.h"
#include "syntheticcatalog.h"

#include <QSet>

using namespace SearchTest;

TEST(SyntheticCatalog, IsTheSameForASeedEverywhere) {
    const MemeList a = SyntheticCatalog::generate(300, 9);
    EXPECT_EQ(a, SyntheticCatalog::generate(300, 9));
    EXPECT_NE(a, SyntheticCatalog::generate(300, 10));
    EXPECT_EQ(SyntheticCatalog::queries(20, 9), SyntheticCatalog::queries(20, 9));
    // Pinned, so a change of random source (std distributions differ between libraries)
    // cannot silently change what benchmarks on different machines measure.
    EXPECT_EQ(a.first().id, QStringLiteral("syn_0000001"));
    EXPECT_EQ(a.first().popularity, 978);
    EXPECT_EQ(SyntheticCatalog::queries(3, 9).first(), QStringLiteral("room"));

    QSet<QString> unique;
    for (const Meme& m : a)
        unique.insert(m.id);
    EXPECT_EQ(unique.size(), a.size());
    EXPECT_EQ(SyntheticCatalog::keystrokes(QStringLiteral("ab c")),
              ids({"a", "ab", "ab ", "ab c"}));
}
