// SPDX-License-Identifier: MIT
#include "platform/x11/x11clipboardreader.h"

#include "platform/platformlog.h"
#include "platform/x11/qtxcb.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QSet>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <poll.h>
#include <xcb/xcb.h>

namespace {

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};
template <typename T> using Reply = std::unique_ptr<T, FreeDeleter>;

// One read: a connection, an invisible window to receive the data on, and the deadline.
class Transfer {
public:
    Transfer(const QByteArray& displayName, int timeoutMs) : m_timeoutMs(timeoutMs) {
        m_clock.start();
        m_c = xcb_connect(displayName.isEmpty() ? nullptr : displayName.constData(), nullptr);
        if (xcb_connection_has_error(m_c))
            return;
        const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(m_c)).data;
        m_window = xcb_generate_id(m_c);
        const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
        xcb_create_window(m_c, XCB_COPY_FROM_PARENT, m_window, screen->root, 0, 0, 1, 1, 0,
                          XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK,
                          &mask);
        m_clipboard = atom("CLIPBOARD");
        m_targets = atom("TARGETS");
        m_incr = atom("INCR");
        m_property = atom("ORVANE_CLIPBOARD_READ");
    }
    ~Transfer() {
        if (m_c)
            xcb_disconnect(m_c);
    }

    bool ok() const { return m_c && !xcb_connection_has_error(m_c); }
    bool expired() const { return m_clock.elapsed() >= m_timeoutMs; }

    xcb_atom_t atom(const char* name) { return internAtom(m_c, name); }

    bool hasOwner() {
        Reply<xcb_get_selection_owner_reply_t> reply(
            xcb_get_selection_owner_reply(m_c, xcb_get_selection_owner(m_c, m_clipboard), nullptr));
        return reply && reply->owner != XCB_NONE;
    }

    QList<xcb_atom_t> targets() {
        QList<xcb_atom_t> atoms;
        const std::optional<QByteArray> bytes = convert(m_targets, -1);
        if (!bytes)
            return atoms;
        const auto* values = reinterpret_cast<const xcb_atom_t*>(bytes->constData());
        for (qsizetype i = 0; i < bytes->size() / qsizetype(sizeof(xcb_atom_t)); ++i)
            atoms.append(values[i]);
        return atoms;
    }

    QList<QString> names(const QList<xcb_atom_t>& atoms) {
        QList<xcb_get_atom_name_cookie_t> cookies;
        for (xcb_atom_t a : atoms)
            cookies.append(xcb_get_atom_name(m_c, a));
        QList<QString> result;
        for (const auto& cookie : cookies) {
            Reply<xcb_get_atom_name_reply_t> reply(xcb_get_atom_name_reply(m_c, cookie, nullptr));
            result.append(reply ? QString::fromLatin1(xcb_get_atom_name_name(reply.get()),
                                                      xcb_get_atom_name_name_length(reply.get()))
                                : QString());
        }
        return result;
    }

    // The owner's data for `target`; nothing when it refuses, does not answer in time, or
    // the data is larger than `maxBytes` (when non-negative), which sets `tooLarge`.
    std::optional<QByteArray> convert(xcb_atom_t target, qint64 maxBytes,
                                      bool* tooLarge = nullptr) {
        xcb_convert_selection(m_c, m_window, m_clipboard, target, m_property, XCB_CURRENT_TIME);
        xcb_flush(m_c);
        Reply<xcb_generic_event_t> event = waitFor([&](const xcb_generic_event_t* e) {
            if ((e->response_type & 0x7f) != XCB_SELECTION_NOTIFY)
                return false;
            const auto* n = reinterpret_cast<const xcb_selection_notify_event_t*>(e);
            return n->requestor == m_window && n->target == target;
        });
        if (!event)
            return std::nullopt;
        if (reinterpret_cast<xcb_selection_notify_event_t*>(event.get())->property == XCB_NONE)
            return std::nullopt;

        Reply<xcb_get_property_reply_t> head(xcb_get_property_reply(
            m_c, xcb_get_property(m_c, 0, m_window, m_property, XCB_GET_PROPERTY_TYPE_ANY, 0, 0),
            nullptr));
        if (!head)
            return std::nullopt;
        if (head->type == m_incr)
            return incremental(maxBytes, tooLarge);
        if (maxBytes >= 0 && qint64(head->bytes_after) > maxBytes) {
            deleteProperty();
            if (tooLarge)
                *tooLarge = true;
            return std::nullopt;
        }
        return takeProperty();
    }

private:
    template <typename Pred> Reply<xcb_generic_event_t> waitFor(Pred matches) {
        for (;;) {
            while (xcb_generic_event_t* e = xcb_poll_for_event(m_c)) {
                if (matches(e))
                    return Reply<xcb_generic_event_t>(e);
                std::free(e);
            }
            if (xcb_connection_has_error(m_c))
                return nullptr;
            const qint64 left = m_timeoutMs - m_clock.elapsed();
            if (left <= 0)
                return nullptr;
            pollfd fd{xcb_get_file_descriptor(m_c), POLLIN, 0};
            ::poll(&fd, 1, int(left));
        }
    }

    std::optional<QByteArray> takeProperty() {
        Reply<xcb_get_property_reply_t> reply(
            xcb_get_property_reply(m_c,
                                   xcb_get_property(m_c, 1, m_window, m_property,
                                                    XCB_GET_PROPERTY_TYPE_ANY, 0, UINT32_MAX / 4),
                                   nullptr));
        if (!reply)
            return std::nullopt;
        const int length = xcb_get_property_value_length(reply.get());
        return QByteArray(static_cast<const char*>(xcb_get_property_value(reply.get())), length);
    }

    void deleteProperty() {
        xcb_delete_property(m_c, m_window, m_property);
        xcb_flush(m_c);
    }

    // The owner sends the data in chunks: each time we delete the property it writes the
    // next one, and an empty chunk ends the transfer.
    std::optional<QByteArray> incremental(qint64 maxBytes, bool* tooLarge) {
        deleteProperty();
        QByteArray data;
        for (;;) {
            Reply<xcb_generic_event_t> event = waitFor([&](const xcb_generic_event_t* e) {
                if ((e->response_type & 0x7f) != XCB_PROPERTY_NOTIFY)
                    return false;
                const auto* n = reinterpret_cast<const xcb_property_notify_event_t*>(e);
                return n->window == m_window && n->atom == m_property &&
                       n->state == XCB_PROPERTY_NEW_VALUE;
            });
            if (!event)
                return std::nullopt;
            const std::optional<QByteArray> chunk = takeProperty();
            if (!chunk)
                return std::nullopt;
            if (chunk->isEmpty())
                return data;
            data += *chunk;
            if (maxBytes >= 0 && data.size() > maxBytes) {
                if (tooLarge)
                    *tooLarge = true;
                return std::nullopt;
            }
        }
    }

    xcb_connection_t* m_c = nullptr;
    xcb_window_t m_window = 0;
    xcb_atom_t m_clipboard = 0, m_targets = 0, m_incr = 0, m_property = 0;
    QElapsedTimer m_clock;
    int m_timeoutMs;
};

// Images are offered in many encodings that the owner often makes on request; the PNG one
// is read first and the others only while time remains.
int readingRank(const QString& type) {
    if (!type.startsWith(QLatin1String("image/")))
        return 0;
    return type == QLatin1String("image/png") ? 1 : 2;
}

} // namespace

X11ClipboardReader::X11ClipboardReader(QByteArray displayName)
    : m_displayName(std::move(displayName)) {}

void X11ClipboardReader::read(Filter wanted, Limits limits, QObject* context, Done done) {
    QPointer<QObject> guard(context);
    m_worker.post([display = m_displayName, wanted = std::move(wanted), limits, guard,
                   done = std::move(done)] {
        ClipboardContents contents = readNow(display, wanted, limits);
        if (!guard)
            return;
        QMetaObject::invokeMethod(
            guard.data(), [guard, done, contents] { done(contents); }, Qt::QueuedConnection);
    });
}

ClipboardContents X11ClipboardReader::readNow(const QByteArray& displayName, const Filter& wanted,
                                              const Limits& limits) {
    ClipboardContents contents;
    Transfer transfer(displayName, limits.timeoutMs);
    if (!transfer.ok()) {
        contents.complete = false;
        return contents;
    }
    contents.owned = transfer.hasOwner();
    if (!contents.owned)
        return contents;

    const QList<xcb_atom_t> atoms = transfer.targets();
    if (atoms.isEmpty()) {
        // An owner that offers nothing answers TARGETS with at least TARGETS itself.
        contents.complete = false;
        return contents;
    }
    const QList<QString> names = transfer.names(atoms);
    QList<qsizetype> order;
    QSet<QString> seen;
    for (qsizetype i = 0; i < names.size(); ++i) {
        if (!names[i].isEmpty() && !seen.contains(names[i]) && wanted(names[i])) {
            seen.insert(names[i]);
            order.append(i);
        }
    }
    std::stable_sort(order.begin(), order.end(), [&](qsizetype a, qsizetype b) {
        return readingRank(names[a]) < readingRank(names[b]);
    });

    QList<QPair<qsizetype, QByteArray>> read;
    qint64 budget = limits.maxBytes;
    for (qsizetype i : order) {
        if (transfer.expired()) {
            contents.complete = false;
            break;
        }
        bool tooLarge = false;
        const std::optional<QByteArray> bytes = transfer.convert(atoms[i], budget, &tooLarge);
        if (!bytes) {
            // A type the owner refuses is simply not on offer; silence or size is a loss.
            if (tooLarge || transfer.expired())
                contents.complete = false;
            continue;
        }
        budget -= bytes->size();
        read.append({i, *bytes});
    }
    // Keep the owner's order of types.
    std::sort(read.begin(), read.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [i, bytes] : read)
        contents.types.append({names[i], bytes});
    if (!contents.complete)
        qCWarning(lcPlatform).noquote()
            << "clipboard read incomplete after" << limits.timeoutMs << "ms or" << limits.maxBytes
            << "bytes:" << contents.types.size() << "of" << order.size() << "types";
    return contents;
}
