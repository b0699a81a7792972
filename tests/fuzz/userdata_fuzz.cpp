// SPDX-License-Identifier: MIT
// userdata.json: any bytes decode to a state that keeps the store's invariants and that
// survives a save and a reload unchanged.
#include "userdata/userdata.h"

#include <QSet>
#include <cstdlib>

namespace {

void check(bool ok) {
    if (!ok)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const UserData::State s =
        UserData::decode(QByteArrayView(reinterpret_cast<const char*>(data), qsizetype(size)));
    check(s.recents.size() <= UserData::maxRecents);
    check(QSet<QString>(s.recents.begin(), s.recents.end()).size() == s.recents.size());
    check(QSet<QString>(s.favorites.begin(), s.favorites.end()).size() == s.favorites.size());
    for (auto q = s.picks.begin(); q != s.picks.end(); ++q) {
        check(!q.key().isEmpty() && !q->isEmpty());
        for (const qint64 count : *q)
            check(count >= 1);
    }
    for (const qint64 count : s.uses)
        check(count >= 1);
    check(UserData::decode(UserData::encode(s)) == s);
    return 0;
}
