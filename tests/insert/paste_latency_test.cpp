// SPDX-License-Identifier: MIT
// Not a check: prints how long a paste takes, for the record. Disabled in normal runs;
// scripts/measure-paste.sh runs it.
#include "pastefixture.h"

#include <ctime>

namespace {

double monotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) * 1000.0 + double(now.tv_nsec) / 1e6;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

} // namespace

TEST_F(PasteOnTheDesktop, DISABLED_MeasuresPasteLatency) {
    constexpr int runs = 20;
    PasteTarget target;
    ASSERT_TRUE(target.start());
    double enterAt = 0;
    double writtenAt = 0;
    QObject::connect(&app->pickerModel(), &PickerModel::insertRequested,
                     [&] { enterAt = monotonicMs(); });
    QObject::connect(&paster(), &Paster::written, [&] { writtenAt = monotonicMs(); });
    QSignalSpy finished(&paster(), &Paster::finished);
    auto pasteOnce = [&] {
        const qsizetype pastes = target.pastes().size();
        const qsizetype ends = finished.size();
        EXPECT_FALSE(pasteFirstResult().isEmpty());
        EXPECT_TRUE(QTest::qWaitFor(
            [&] { return target.pastes().size() > pastes && finished.size() > ends; }, 10000));
        EXPECT_TRUE(QTest::qWaitFor([&] { return !app->panelController().isInserting(); }, 5000));
        return target.pastes().last().value(QStringLiteral("monotonic_ms")).toDouble();
    };

    std::vector<double> delivered;
    pasteOnce(); // caches the image
    for (int i = 0; i < runs; ++i)
        delivered.push_back(pasteOnce() - enterAt);
    std::vector<double> onClipboard;
    for (int i = 0; i < runs; ++i) {
        app->memeStore().clearCache();
        pasteOnce();
        onClipboard.push_back(writtenAt - enterAt);
    }
    std::printf("paste latency (median of %d): Enter -> Ctrl+V delivered, cached: %.1f ms "
                "(min %.1f, max %.1f)\n",
                runs, median(delivered), *std::min_element(delivered.begin(), delivered.end()),
                *std::max_element(delivered.begin(), delivered.end()));
    std::printf("paste latency (median of %d): Enter -> image on the clipboard, uncached: %.1f ms "
                "(min %.1f, max %.1f)\n",
                runs, median(onClipboard),
                *std::min_element(onClipboard.begin(), onClipboard.end()),
                *std::max_element(onClipboard.begin(), onClipboard.end()));
}
