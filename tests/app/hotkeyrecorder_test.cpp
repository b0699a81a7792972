// SPDX-License-Identifier: MIT
#include "app/hotkeyrecorder.h"

#include <QTest>
#include <QWidget>
#include <gtest/gtest.h>

namespace {

struct Recording {
    explicit Recording(HotKeyRecorder& recorder) {
        recorder.record([this](std::optional<HotKeyCombo> combo) {
            finished = true;
            result = std::move(combo);
        });
    }
    bool finished = false;
    std::optional<HotKeyCombo> result;
};

} // namespace

TEST(HotKeyRecorder, FunctionKeysNeedNoModifierAndShiftKeepsTheKeyItIsOn) {
    HotKeyRecorder recorder;
    Recording f5(recorder);
    recorder.handleKey(Qt::Key_F5, Qt::NoModifier);
    ASSERT_TRUE(f5.result);
    EXPECT_EQ(f5.result->label, QStringLiteral("F5"));
    EXPECT_EQ(f5.result->modifiers, 0u);

    Recording space(recorder);
    recorder.handleKey(Qt::Key_Space, Qt::MetaModifier | Qt::AltModifier | Qt::ControlModifier);
    ASSERT_TRUE(space.result);
    EXPECT_EQ(space.result->modifiers, 0x1000u | 0x800u | 0x100u);
    EXPECT_EQ(space.result->keyCode, 0x31u);

    Recording shifted(recorder);
    recorder.handleKey(Qt::Key_Control, Qt::ControlModifier); // modifiers alone wait quietly
    EXPECT_FALSE(shifted.finished);
    recorder.handleKey(Qt::Key_Exclam, Qt::ControlModifier | Qt::ShiftModifier);
    ASSERT_TRUE(shifted.result);
    EXPECT_EQ(shifted.result->label, QStringLiteral("Ctrl+Shift+1"));
}

TEST(HotKeyRecorder, EscapeOrASecondRecordingCancels) {
    HotKeyRecorder recorder;
    Recording first(recorder);
    Recording second(recorder);
    EXPECT_TRUE(first.finished);
    EXPECT_FALSE(first.result) << "the first recording ends with none";
    EXPECT_TRUE(recorder.isRecording());
    QTest::keyClick(recorder.panel(), Qt::Key_Escape);
    EXPECT_TRUE(second.finished);
    EXPECT_FALSE(second.result);
    EXPECT_FALSE(recorder.isRecording());
}
