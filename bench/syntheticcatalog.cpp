// SPDX-License-Identifier: MIT
#include "syntheticcatalog.h"

#include <QFile>
#include <algorithm>
#include <cmath>
#include <vector>

namespace {

// SplitMix64 with our own range reduction: std distributions differ between libraries, and
// the catalog must not.
class Random {
public:
    explicit Random(std::uint64_t seed) : m_state(seed) {}
    std::uint64_t next() {
        std::uint64_t z = (m_state += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    // Uniform in [0, n) for the small n used here (the modulo bias is below 2^-40).
    std::uint64_t below(std::uint64_t n) { return next() % n; }
    int between(int lo, int hi) { return lo + int(below(std::uint64_t(hi - lo + 1))); }
    double unit() { return double(next() >> 11) * 0x1.0p-53; }
    bool chance(double p) { return unit() < p; }

private:
    std::uint64_t m_state;
};

// Ranks drawn with probability proportional to 1 / (rank + 2.7), the usual fit for words.
class Zipf {
public:
    explicit Zipf(std::size_t n) : m_cdf(n) {
        double total = 0;
        for (std::size_t k = 0; k < n; ++k)
            m_cdf[k] = (total += 1.0 / (double(k) + 2.7));
        for (double& c : m_cdf)
            c /= total;
    }
    std::size_t draw(Random& r) const {
        const auto it = std::upper_bound(m_cdf.begin(), m_cdf.end(), r.unit());
        return std::min(std::size_t(it - m_cdf.begin()), m_cdf.size() - 1);
    }

private:
    std::vector<double> m_cdf;
};

// Few but real: emotion words people tag reactions with.
const char* const emotionWords[] = {
    "happy",     "sad",          "angry",       "surprised", "confused", "excited",    "bored",
    "proud",     "awkward",      "relieved",    "nervous",   "smug",     "tired",      "shocked",
    "amused",    "annoyed",      "hopeful",     "grateful",  "jealous",  "lonely",     "scared",
    "sarcastic", "disappointed", "embarrassed", "curious",   "calm",     "frustrated", "silly",
};

// Words with marks, so the folding paths get exercised the way real captions do.
const char* const accentedWords[] = {"café",   "naïve",  "jalapeño", "déjà",   "vu",    "über",
                                     "piñata", "façade", "crème",    "brûlée", "señor", "résumé"};

QString capitalised(const QString& w) {
    return w.left(1).toUpper() + w.mid(1);
}

class Writer {
public:
    Writer(Random& r, const Zipf& zipf)
        : m_r(r), m_zipf(zipf), m_words(SyntheticCatalog::vocabulary()) {}

    QString word() {
        if (m_r.chance(0.01))
            return QString::fromUtf8(accentedWords[m_r.below(std::size(accentedWords))]);
        if (m_r.chance(0.01))
            return QString::number(m_r.between(2, 2025)) +
                   (m_r.chance(0.5) ? QStringLiteral("x") : QString());
        return m_words[qsizetype(m_zipf.draw(m_r))];
    }
    QStringList words(int lo, int hi) {
        QStringList out;
        const int n = m_r.between(lo, hi);
        for (int i = 0; i < n; ++i)
            out.append(word());
        return out;
    }
    // Captions are shouted, punctuated and contracted like the real thing.
    QString caption() {
        QStringList w = words(4, 12);
        if (m_r.chance(0.2) && w.size() > 1)
            w[1] = w[1] + QStringLiteral("'t");
        QString text = w.join(QLatin1Char(' '));
        if (m_r.chance(0.4))
            text = text.toUpper();
        static const char* const endings[] = {"", "!", "?", "...", "!!"};
        return text + QString::fromLatin1(endings[m_r.below(5)]);
    }
    QString sentence() {
        QString text = words(6, 14).join(QLatin1Char(' '));
        return capitalised(text) + QLatin1Char('.');
    }

private:
    Random& m_r;
    const Zipf& m_zipf;
    const QStringList& m_words;
};

} // namespace

namespace SyntheticCatalog {

const QStringList& vocabulary() {
    static const QStringList words = [] {
        QFile file(QStringLiteral(":/bench/data/vocabulary.txt"));
        if (!file.open(QIODevice::ReadOnly))
            qFatal("SyntheticCatalog: the vocabulary resource is missing");
        return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }();
    return words;
}

MemeList generate(int size, std::uint64_t seed) {
    Random r(seed);
    const Zipf zipf(std::size_t(vocabulary().size()));
    Writer writer(r, zipf);

    // Templates repeat across the catalog the way famous formats do.
    QStringList templates;
    for (int i = 0; i < 400; ++i) {
        QStringList name = writer.words(1, 3);
        for (QString& w : name)
            w = capitalised(w);
        templates.append(name.join(QLatin1Char(' ')));
    }
    const Zipf templateZipf(std::size_t(templates.size()));

    MemeList memes;
    memes.reserve(size);
    for (int i = 0; i < size; ++i) {
        Meme m;
        const QString number = QString::number(i + 1);
        m.id = QStringLiteral("syn_%1").arg(i + 1, 7, 10, QLatin1Char('0'));
        m.template_ = templates[qsizetype(templateZipf.draw(r))];
        m.ocr_text = writer.caption();
        m.description = writer.sentence();
        for (int e = 0; e < 2; ++e)
            m.emotions.append(QString::fromLatin1(emotionWords[r.below(std::size(emotionWords))]));
        for (int u = 0; u < 2; ++u)
            m.use_cases.append(writer.words(2, 4).join(QLatin1Char(' ')));
        m.keywords = writer.words(4, 4);
        m.thumb = QStringLiteral("/t/") + number + QStringLiteral(".webp");
        m.full = QStringLiteral("/f/") + number + QStringLiteral(".jpg");
        m.width = r.between(240, 1200);
        m.height = r.between(240, 1200);
        m.bytes = r.between(20'000, 900'000);
        m.popularity = r.between(0, 1000);
        memes.append(std::move(m));
    }
    return memes;
}

QStringList queries(int count, std::uint64_t seed) {
    Random r(seed ^ 0x51ED270B27B1A2C3ULL);
    const Zipf zipf(std::size_t(vocabulary().size()));
    Writer writer(r, zipf);
    QStringList out;
    for (int i = 0; i < count; ++i) {
        QStringList words = writer.words(1, 3);
        if (r.chance(0.25)) {
            // Stopped typing once the grid showed the picture.
            QString& last = words.last();
            last.truncate(std::max<qsizetype>(1, last.size() - r.between(1, 3)));
        }
        if (r.chance(0.05))
            words.append(QStringLiteral("zzyzx")); // nothing matches
        out.append(words.join(QLatin1Char(' ')));
    }
    return out;
}

QStringList keystrokes(const QString& query) {
    QStringList out;
    for (qsizetype n = 1; n <= query.size(); ++n)
        out.append(query.left(n));
    return out;
}

} // namespace SyntheticCatalog
