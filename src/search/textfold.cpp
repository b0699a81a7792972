// SPDX-License-Identifier: MIT
#include "search/textfold.h"

#include <QChar>

namespace {

bool isAsciiAlnum(char16_t c) {
    return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9');
}

QStringList asciiTokens(QStringView text) {
    QStringList out;
    QString current;
    for (const QChar qc : text) {
        const char16_t c = qc.unicode();
        if (isAsciiAlnum(c)) {
            current.append(QChar(c >= u'A' && c <= u'Z' ? char16_t(c + 32) : c));
        } else if (!current.isEmpty()) {
            out.append(current);
            current.clear();
        }
    }
    if (!current.isEmpty())
        out.append(current);
    return out;
}

// Lower-case rather than full case folding, so "straße" stays one token the way the
// index's tokenizer keeps it.
QString foldCaseAndMarks(QStringView text) {
    const QString decomposed = text.toString().normalized(QString::NormalizationForm_D);
    QString stripped;
    stripped.reserve(decomposed.size());
    for (const char32_t ucs : decomposed.toUcs4()) {
        if (QChar::category(ucs) == QChar::Mark_NonSpacing)
            continue;
        stripped.append(QString::fromUcs4(&ucs, 1));
    }
    return stripped.toLower().normalized(QString::NormalizationForm_C);
}

} // namespace

namespace TextFold {

QStringList tokens(QStringView text) {
    bool ascii = true;
    for (const QChar c : text)
        ascii = ascii && c.unicode() < 0x80;
    // The common case costs one pass with no normalisation.
    if (ascii)
        return asciiTokens(text);

    QStringList out;
    QString current;
    for (const char32_t ucs : foldCaseAndMarks(text).toUcs4()) {
        if (QChar::isLetterOrNumber(ucs)) {
            current.append(QString::fromUcs4(&ucs, 1));
        } else if (!current.isEmpty()) {
            out.append(current);
            current.clear();
        }
    }
    if (!current.isEmpty())
        out.append(current);
    return out;
}

QString key(QStringView text) { return tokens(text).join(QLatin1Char(' ')); }

} // namespace TextFold
