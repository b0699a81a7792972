// SPDX-License-Identifier: MIT
#include "search/wordfilter.h"

#include <QLocale>
#include <QRegularExpression>
#include <algorithm>

namespace {

QString foldMarks(QStringView text) {
    const QString decomposed = text.toString().normalized(QString::NormalizationForm_D);
    QString stripped;
    stripped.reserve(decomposed.size());
    for (const char32_t ucs : decomposed.toUcs4()) {
        if (QChar::category(ucs) != QChar::Mark_NonSpacing)
            stripped.append(QString::fromUcs4(&ucs, 1));
    }
    return stripped.normalized(QString::NormalizationForm_C);
}

QString itemText(const Meme& meme) {
    const QChar space(u' ');
    return meme.template_ + space + meme.ocr_text + space + meme.description + space +
           meme.keywords.join(space) + space + meme.use_cases.join(space) + space +
           meme.emotions.join(space);
}

} // namespace

WordFilter::WordFilter(QStringView query) : m_words(foldedWords(query)) {}

QStringList WordFilter::foldedWords(QStringView text) {
    static const QRegularExpression whiteSpace(QStringLiteral("\\s+"));
    return QLocale().toLower(foldMarks(text)).split(whiteSpace, Qt::SkipEmptyParts);
}

bool WordFilter::matches(const Meme& meme) const {
    if (m_words.isEmpty())
        return true;
    const QStringList own = foldedWords(itemText(meme));
    for (const QString& word : m_words) {
        const bool found = std::any_of(own.begin(), own.end(),
                                       [&](const QString& w) { return w.startsWith(word); });
        if (!found)
            return false;
    }
    return true;
}
