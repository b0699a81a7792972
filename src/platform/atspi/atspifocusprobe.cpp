// SPDX-License-Identifier: MIT
#include "platform/atspi/atspifocusprobe.h"

#include "platform/platformlog.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusReply>
#include <QElapsedTimer>
#include <QPointer>
#include <QStack>

namespace {

// Numbers of the AT-SPI role and state enumerations (atspi-constants.h).
namespace Role {
constexpr quint32 comboBox = 11, passwordText = 40, spinButton = 52, terminal = 60, text = 61,
                  unknown = 67, paragraph = 73, entry = 79, documentText = 94, documentWeb = 95;
}
namespace State {
constexpr int active = 1, defunct = 6, editable = 7, focused = 12, showing = 25;
}

constexpr auto accessibleInterface = "org.a11y.atspi.Accessible";
constexpr auto rootPath = "/org/a11y/atspi/accessible/root";
// Trees larger than this are not worth the wait: the answer would come too late anyway.
constexpr int maxVisited = 3000;

struct Ref {
    QString service;
    QString path;
};

class Session {
public:
    Session(QDBusConnection bus, int timeoutMs) : m_bus(std::move(bus)), m_timeoutMs(timeoutMs) {
        m_clock.start();
    }
    bool expired() const { return m_clock.elapsed() >= m_timeoutMs; }

    QDBusMessage call(const QString& service, const QString& path, const char* interface,
                      const char* method, const QVariantList& args = {}) {
        QDBusMessage message = QDBusMessage::createMethodCall(
            service, path, QLatin1String(interface), QLatin1String(method));
        message.setArguments(args);
        const int left = int(m_timeoutMs - m_clock.elapsed());
        if (left <= 0)
            return {};
        return m_bus.call(message, QDBus::Block, left);
    }

    QList<Ref> children(const Ref& node) {
        QList<Ref> refs;
        const QDBusMessage reply =
            call(node.service, node.path, accessibleInterface, "GetChildren");
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
            return refs;
        const auto arg = reply.arguments().first().value<QDBusArgument>();
        arg.beginArray();
        while (!arg.atEnd()) {
            Ref ref;
            QDBusObjectPath path;
            arg.beginStructure();
            arg >> ref.service >> path;
            arg.endStructure();
            ref.path = path.path();
            refs.append(ref);
        }
        arg.endArray();
        return refs;
    }

    // The state bit set as one 64-bit value; 0 when the element does not answer.
    quint64 states(const Ref& node) {
        const QDBusMessage reply = call(node.service, node.path, accessibleInterface, "GetState");
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
            return 0;
        QList<quint32> words;
        const auto arg = reply.arguments().first().value<QDBusArgument>();
        arg >> words;
        quint64 bits = 0;
        for (qsizetype i = 0; i < std::min<qsizetype>(words.size(), 2); ++i)
            bits |= quint64(words[i]) << (32 * i);
        return bits;
    }

    std::optional<quint32> role(const Ref& node) {
        const QDBusMessage reply = call(node.service, node.path, accessibleInterface, "GetRole");
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
            return std::nullopt;
        return reply.arguments().first().toUInt();
    }

    QString roleName(const Ref& node) {
        const QDBusMessage reply =
            call(node.service, node.path, accessibleInterface, "GetRoleName");
        return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()
                   ? reply.arguments().first().toString()
                   : QString();
    }

    std::optional<qint64> pidOf(const QString& service) {
        const QDBusMessage reply =
            call(QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
                 "org.freedesktop.DBus", "GetConnectionUnixProcessID", {service});
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
            return std::nullopt;
        return qint64(reply.arguments().first().toUInt());
    }

private:
    QDBusConnection m_bus;
    QElapsedTimer m_clock;
    int m_timeoutMs;
};

bool has(quint64 bits, int state) {
    return bits & (quint64(1) << state);
}

FocusReport classify(quint32 role, quint64 states, QString roleName) {
    FocusReport report;
    report.role = std::move(roleName);
    report.terminal = role == Role::terminal;
    switch (role) {
    case Role::text:
    case Role::entry:
    case Role::passwordText:
    case Role::terminal:
    case Role::documentText:
    case Role::paragraph:
    case Role::spinButton:
        report.textInput = FocusReport::TextInput::yes;
        return report;
    case Role::comboBox:
        report.textInput =
            has(states, State::editable) ? FocusReport::TextInput::yes : FocusReport::TextInput::no;
        return report;
    case Role::documentWeb:
    case Role::unknown:
        // A page or a custom widget: it may well take a paste, and only it knows.
        report.textInput = FocusReport::TextInput::unknown;
        return report;
    default:
        // Editable content under another role (a rich-text section of a web page).
        report.textInput =
            has(states, State::editable) ? FocusReport::TextInput::yes : FocusReport::TextInput::no;
        return report;
    }
}

QString busAddress(int timeoutMs) {
    const QByteArray fromEnvironment = qgetenv("AT_SPI_BUS_ADDRESS");
    if (!fromEnvironment.isEmpty())
        return QString::fromUtf8(fromEnvironment);
    QDBusMessage message = QDBusMessage::createMethodCall(
        QStringLiteral("org.a11y.Bus"), QStringLiteral("/org/a11y/bus"),
        QStringLiteral("org.a11y.Bus"), QStringLiteral("GetAddress"));
    const QDBusMessage reply = QDBusConnection::sessionBus().call(message, QDBus::Block, timeoutMs);
    return reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()
               ? reply.arguments().first().toString()
               : QString();
}

} // namespace

void AtSpiFocusProbe::probe(qint64 pid, int timeoutMs, QObject* context, Done done) {
    QPointer<QObject> guard(context);
    m_worker.post([pid, timeoutMs, guard, done = std::move(done)] {
        const FocusReport report = probeNow(pid, timeoutMs);
        if (guard)
            QMetaObject::invokeMethod(
                guard.data(), [done, report] { done(report); }, Qt::QueuedConnection);
    });
}

FocusReport AtSpiFocusProbe::probeNow(qint64 pid, int timeoutMs) {
    QElapsedTimer clock;
    clock.start();
    if (pid <= 0)
        return {};
    // One connection for the life of the process: connecting costs more than a probe.
    static const QString address = busAddress(timeoutMs);
    if (address.isEmpty()) {
        qCInfo(lcPlatform) << "focus probe: no accessibility bus";
        return {};
    }
    QDBusConnection bus =
        QDBusConnection::connectToBus(address, QStringLiteral("orvane-accessibility"));
    if (!bus.isConnected()) {
        qCInfo(lcPlatform).noquote()
            << "focus probe: cannot reach the accessibility bus:" << bus.lastError().message();
        return {};
    }
    Session session(bus, timeoutMs);

    std::optional<Ref> app;
    for (const Ref& candidate :
         session.children({QStringLiteral("org.a11y.atspi.Registry"), QLatin1String(rootPath)})) {
        if (session.pidOf(candidate.service) == pid) {
            app = candidate;
            break;
        }
    }
    if (!app) {
        qCInfo(lcPlatform) << "focus probe: process" << pid << "publishes no accessibility tree";
        return {};
    }

    // Depth first through what is showing, the active window first.
    QStack<Ref> pending;
    QList<Ref> windows = session.children(*app);
    std::stable_partition(windows.begin(), windows.end(),
                          [&](const Ref& w) { return !has(session.states(w), State::active); });
    for (const Ref& window : windows)
        pending.push(window);
    int visited = 0;
    while (!pending.isEmpty() && !session.expired() && visited < maxVisited) {
        const Ref node = pending.pop();
        ++visited;
        const quint64 states = session.states(node);
        if (has(states, State::defunct))
            continue;
        if (has(states, State::focused)) {
            const std::optional<quint32> role = session.role(node);
            if (!role)
                break;
            FocusReport report = classify(*role, states, session.roleName(node));
            qCInfo(lcPlatform).noquote() << "focus probe:" << report.role << "in process" << pid
                                         << "after" << clock.elapsed() << "ms";
            return report;
        }
        if (!has(states, State::showing) && visited > windows.size())
            continue;
        const QList<Ref> children = session.children(node);
        for (auto it = children.rbegin(); it != children.rend(); ++it)
            pending.push(*it);
    }
    qCInfo(lcPlatform) << "focus probe: no focused element found in process" << pid << "after"
                       << clock.elapsed() << "ms";
    return {};
}
