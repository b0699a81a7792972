// SPDX-License-Identifier: MIT
#include "search/fusedranking.h"

#include "search/localindex.h"
#include "search/textfold.h"
#include "userdata/userdata.h"

#include <algorithm>

namespace FusedRanking {

namespace {

MemeList browse(const Inputs& in) {
    MemeList out;
    QSet<QString> taken;
    for (const QStringList* ids : {&in.userData.favorites(), &in.userData.recents()}) {
        for (const QString& id : *ids) {
            const auto found = in.byID.constFind(id);
            if (found == in.byID.constEnd() || taken.contains(id))
                continue;
            taken.insert(id);
            out.append(*found);
        }
    }
    if (out.size() >= in.window || !in.exploreOrder)
        return out;
    for (const QString& id : in.exploreOrder()) {
        if (out.size() >= in.window)
            break;
        const auto found = in.byID.constFind(id);
        if (found != in.byID.constEnd() && !taken.contains(id)) {
            taken.insert(id);
            out.append(*found);
        }
    }
    return out;
}

} // namespace

MemeList rank(const QString& query, const Inputs& in) {
    const QString key = TextFold::key(query);
    if (key.isEmpty())
        return browse(in);

    const QStringList ids = in.index.search(query, in.window);
    struct Scored {
        const QString* id;
        double score;
    };
    std::vector<Scored> scored;
    scored.reserve(std::size_t(ids.size()));
    for (qsizetype r = 0; r < ids.size(); ++r) {
        const double base = 1.0 / (double(r) + rankOffset);
        const double learned =
            double(std::min(in.userData.pickCount(key, ids[r]), maxCountedPicks)) * pickBoost;
        const double favorite = in.favorites.contains(ids[r]) ? favoriteBoost : 0.0;
        scored.push_back({&ids[r], base + learned + favorite});
    }
    std::stable_sort(scored.begin(), scored.end(),
                     [](const Scored& a, const Scored& b) { return a.score > b.score; });

    MemeList out;
    out.reserve(ids.size());
    for (const Scored& s : scored) {
        const auto found = in.byID.constFind(*s.id);
        if (found != in.byID.constEnd())
            out.append(*found);
    }
    return out;
}

} // namespace FusedRanking
