// SPDX-License-Identifier: MIT
#include "search/textfold.h"

#include <gtest/gtest.h>

namespace {
QStringList words(std::initializer_list<const char16_t*> list) {
    QStringList out;
    for (const char16_t* w : list)
        out.append(QString::fromUtf16(w));
    return out;
}
} // namespace

TEST(TextFold, SplitsAtEveryNonLetterNonNumber) {
    EXPECT_EQ(TextFold::tokens(u"Don't-stop 2x"), words({u"don", u"t", u"stop", u"2x"}));
    EXPECT_EQ(TextFold::tokens(u"?!  ..."), QStringList());
    EXPECT_EQ(TextFold::tokens(u"under_score"), words({u"under", u"score"}));
    EXPECT_EQ(TextFold::key(u"  Hello,   World!! "), QStringLiteral("hello world"));
}

TEST(TextFold, FoldsCaseAndDiacriticsWithoutLocale) {
    EXPECT_EQ(TextFold::tokens(u"Café"), words({u"cafe"}));
    EXPECT_EQ(TextFold::tokens(u"CAFE\u0301"), words({u"cafe"})); // combining accent
    EXPECT_EQ(TextFold::tokens(u"İstanbul ŞEHİR"), words({u"istanbul", u"sehir"}));
    EXPECT_EQ(TextFold::tokens(u"Straße"), words({u"straße"}));
    EXPECT_EQ(TextFold::tokens(u"Ελληνικά—日本語"), words({u"ελληνικα", u"日本語"}));
    // Non-ASCII punctuation splits too; emoji are neither letters nor numbers.
    EXPECT_EQ(TextFold::tokens(u"naïve…ok😀yes"), words({u"naive", u"ok", u"yes"}));
}
