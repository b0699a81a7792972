// SPDX-License-Identifier: MIT
#include "support/desktop.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>

namespace {

// The real orvane binary on the test display and session bus, with an unreachable catalog
// server: what a user gets by starting it from a launcher or a terminal.
class Orvane : public Desktop::Program {
public:
    explicit Orvane(const QStringList& args, const QHash<QString, QString>& extraEnv = {}) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("MEME_SERVER"), QStringLiteral("http://127.0.0.1:9"));
        for (auto it = extraEnv.begin(); it != extraEnv.end(); ++it)
            env.insert(it.key(), it.value());
        process.setProcessEnvironment(env);
        process.start(QStringLiteral(ORVANE_BINARY), args);
    }
    // Whether a window of this process is mapped on the display, waiting up to `timeoutMs`.
    bool showsAWindow(int timeoutMs) {
        return QTest::qWaitFor(
            [&] {
                QByteArray out;
                return XvfbSession::run(QStringLiteral("xdotool"),
                                        {QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                                         QStringLiteral("--pid"),
                                         QString::number(process.processId())},
                                        &out) &&
                       !out.trimmed().isEmpty();
            },
            timeoutMs);
    }
};

bool serviceOwned() {
    return QDBusConnection::sessionBus().interface()->isServiceRegistered(
        QStringLiteral("com.tarnwell.Glimmet"));
}

} // namespace

TEST(SingleInstance, SecondLaunchOpensTheRunningPickerAndEnds) {
    GLIMMET_REQUIRE_DESKTOP();
    ASSERT_TRUE(QDBusConnection::sessionBus().isConnected());
    Orvane first({});
    ASSERT_TRUE(QTest::qWaitFor(serviceOwned, 15000))
        << "the first orvane did not take its name on the session bus";
    EXPECT_FALSE(first.showsAWindow(0)) << "the picker opened by itself";

    Orvane second({});
    ASSERT_TRUE(second.process.waitForFinished(15000)) << "the second orvane stayed resident";
    EXPECT_EQ(second.process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(second.process.exitCode(), 0) << second.process.readAllStandardError().data();
    EXPECT_TRUE(first.showsAWindow(10000)) << "the running orvane did not open its picker";
    EXPECT_EQ(first.process.state(), QProcess::Running);

    // Diagnostic modes still run on their own beside it.
    Orvane config({QStringLiteral("--print-config")});
    ASSERT_TRUE(config.process.waitForFinished(15000));
    EXPECT_EQ(config.process.exitCode(), 0);
    EXPECT_TRUE(config.process.readAllStandardOutput().startsWith("files: http://127.0.0.1:9\n"));
}

TEST(SingleInstance, WithoutASessionBusItRunsAsBefore) {
    GLIMMET_REQUIRE_DESKTOP();
    Orvane alone({QStringLiteral("--show")},
                 {{QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                   QStringLiteral("unix:path=/nonexistent/orvane-test-bus")}});
    EXPECT_TRUE(alone.showsAWindow(15000)) << alone.process.readAllStandardError().data();
    EXPECT_EQ(alone.process.state(), QProcess::Running);
    EXPECT_TRUE(alone.process.readAllStandardError().contains(
        "No session bus, so a second Orvane is not detected"));
}
