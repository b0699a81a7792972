// SPDX-License-Identifier: MIT
#include <QDeadlineTimer>
#include <QFile>
#include <QHash>
#include <QImage>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

struct OrvaneRun {
    int exitCode = -1;
    QString out;
    QString err;
};

// Runs orvane with only the given MEME_* variables set, and no display.
OrvaneRun orvane(const QStringList& args, const QHash<QString, QString>& memeVars) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const QString& name : env.keys())
        if (name.startsWith(QLatin1String("MEME_")))
            env.remove(name);
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    env.remove(QStringLiteral("QT_QPA_PLATFORM"));
    for (auto it = memeVars.begin(); it != memeVars.end(); ++it)
        env.insert(it.key(), it.value());
    QProcess p;
    p.setProcessEnvironment(env);
    p.start(QStringLiteral(ORVANE_BINARY), args);
    if (!p.waitForFinished(30000))
        return {};
    return {p.exitCode(), QString::fromUtf8(p.readAllStandardOutput()),
            QString::fromUtf8(p.readAllStandardError())};
}

// orvane-server on a folder holding `files` (name → content) and a free port; its start-up
// line names the address.
class Server {
public:
    explicit Server(const QHash<QString, QByteArray>& files = {}) {
        for (auto it = files.begin(); it != files.end(); ++it) {
            QFile file(m_root.filePath(it.key()));
            if (!file.open(QIODevice::WriteOnly) || file.write(it.value()) != it.value().size())
                return;
        }
        m_process.start(QStringLiteral(ORVANE_SERVER_BINARY),
                        {QStringLiteral("--root"), m_root.path(), QStringLiteral("--port"),
                         QStringLiteral("0")});
        const QRegularExpression address(QStringLiteral("http://127\\.0\\.0\\.1:\\d+/"));
        QByteArray out;
        const QDeadlineTimer deadline(15000);
        while (m_url.isEmpty() && !deadline.hasExpired() &&
               m_process.state() != QProcess::NotRunning) {
            m_process.waitForReadyRead(100);
            out += m_process.readAllStandardOutput();
            m_url = address.match(QString::fromUtf8(out)).captured();
        }
    }
    ~Server() {
        m_process.terminate();
        m_process.waitForFinished(5000);
    }
    const QString& url() const { return m_url; }
    QString root() const { return m_root.path(); }

private:
    QTemporaryDir m_root;
    QProcess m_process;
    QString m_url;
};

} // namespace

// Which variable wins is the configuration's own business; here, that the process reads them
// and reports them, and that a broken one ends it with a line saying why.
TEST(PrintConfig, PrintsTheEndpointsAndAnEmptyServerIsFatal) {
    OrvaneRun r = orvane({QStringLiteral("--print-config")},
                         {{QStringLiteral("MEME_API"), QStringLiteral("https://api.example.org")}});
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, QStringLiteral("files: http://127.0.0.1:8787\napi: https://api.example.org\n"
                                    "cloud api: true\n"));

    r = orvane({QStringLiteral("--print-config")}, {{QStringLiteral("MEME_SERVER"), QString()}});
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(r.out.isEmpty()) << r.out.toStdString();
    EXPECT_EQ(r.err, QStringLiteral(
                         "orvane: configuration error: MEME_SERVER is not a valid URL: \"\"\n"));
}

TEST(CommandLine, HelpAndVersionPrintAndEnd) {
    OrvaneRun r = orvane({QStringLiteral("--help")}, {});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_TRUE(r.out.startsWith(QLatin1String("Usage: orvane [--show]\n"))) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains(QLatin1String("  --print-config ")));
    EXPECT_TRUE(r.err.isEmpty()) << r.err.toStdString();

    r = orvane({QStringLiteral("--version")}, {});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.out, QStringLiteral("Orvane 0.1.0\n"));
}

TEST(CommandLine, UnknownSwitchPrintsTheUsageAndFails) {
    // Without a display as well: it must not get as far as starting a resident copy.
    for (const QStringList& args :
         {QStringList{QStringLiteral("--shwo")}, QStringList{QStringLiteral("--query")},
          QStringList{QStringLiteral("--print-config"), QStringLiteral("extra")}}) {
        const OrvaneRun r = orvane(args, {});
        EXPECT_EQ(r.exitCode, 2) << args.join(' ').toStdString();
        EXPECT_TRUE(r.out.isEmpty()) << r.out.toStdString();
        EXPECT_TRUE(r.err.startsWith(
            QStringLiteral("orvane: unknown argument %1\n\nUsage: orvane").arg(args.last())))
            << r.err.toStdString();
    }
}

TEST(CommandLine, CaptionSwitchesWorkWithoutADisplay) {
    OrvaneRun r = orvane({QStringLiteral("--caption-test")}, {});
    EXPECT_EQ(r.exitCode, 0) << r.out.toStdString() << r.err.toStdString();
    EXPECT_TRUE(r.out.startsWith(QLatin1String("caption-test: editor open=true\n")))
        << r.out.toStdString();
    EXPECT_TRUE(r.out.contains(QLatin1String("caption-test: after esc editor open=false\n")));

    QTemporaryDir dir;
    const QString in = dir.filePath(QStringLiteral("in.png"));
    const QString out = dir.filePath(QStringLiteral("out.jpg"));
    QImage grey(300, 200, QImage::Format_RGB32);
    grey.fill(QColor(128, 128, 128));
    ASSERT_TRUE(grey.save(in));
    r = orvane({QStringLiteral("--render-caption"), in, QStringLiteral("top"), QString(), out}, {});
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QImage drawn(out);
    ASSERT_EQ(drawn.size(), QSize(300, 200));
    int whiteAtTop = 0;
    int whiteBelow = 0;
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 300; ++x)
            (y < 60 ? whiteAtTop : whiteBelow) += qGray(drawn.pixel(x, y)) > 235;
    EXPECT_GT(whiteAtTop, 100);
    EXPECT_EQ(whiteBelow, 0);

    r = orvane({QStringLiteral("--render-caption"), dir.filePath(QStringLiteral("none.png")),
                QStringLiteral("a"), QStringLiteral("b"), out},
               {});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QLatin1String("orvane: cannot read "))) << r.err.toStdString();
}

// Launch → searchable is timed on the catalog an earlier run left on disk, never the server.
TEST(CommandLine, StartupBenchAnswersFromTheCatalogOnDisk) {
    const Server server;
    ASSERT_FALSE(server.url().isEmpty());
    QFile index(server.root() + QStringLiteral("/index.json"));
    ASSERT_TRUE(index.open(QIODevice::WriteOnly));
    QByteArray records = "[";
    for (const char* words : {"a cat", "a dog", "the cat sat"})
        records += QByteArray(records.size() > 1 ? "," : "") + R"({"id":")" + words +
                   R"(","template":"","ocr_text":"","description":")" + words +
                   R"(","emotions":[],"use_cases":[],"keywords":[],"thumb":"/t/1.webp",)"
                   R"("full":"/f/1.jpg","width":10,"height":10,"bytes":1})";
    index.write(records + "]");
    index.close();
    QTemporaryDir data;
    const QHash<QString, QString> unreachable{
        {QStringLiteral("MEME_SERVER"), QStringLiteral("http://127.0.0.1:9/")},
        {QStringLiteral("XDG_DATA_HOME"), data.path()}};

    OrvaneRun r = orvane({QStringLiteral("--startup-bench")}, unreachable);
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.out, QStringLiteral("startup-bench: no catalog on disk yet; run orvane once with "
                                    "the server up\n"));

    r = orvane({QStringLiteral("--query"), QStringLiteral("cat")},
               {{QStringLiteral("MEME_SERVER"), server.url()},
                {QStringLiteral("XDG_DATA_HOME"), data.path()}});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    r = orvane({QStringLiteral("--startup-bench")}, unreachable);
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QStringList lines = r.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 3) << r.out.toStdString();
    EXPECT_EQ(lines[0], QStringLiteral("startup-bench: 3 items on disk, 2 results for \"cat\" "
                                       "from memory"));
    EXPECT_TRUE(lines[2].startsWith(QLatin1String("startup-bench: launch to searchable ")))
        << lines[2].toStdString();
}

TEST(CommandLine, DeleteDataTestAsksTheServerAndSaysWhatCameOfIt) {
    const Server server;
    ASSERT_FALSE(server.url().isEmpty());
    OrvaneRun r = orvane({QStringLiteral("--delete-data-test")},
                         {{QStringLiteral("MEME_API"), server.url()}});
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, QStringLiteral("delete-data-test: deleted\n"));

    r = orvane({QStringLiteral("--delete-data-test")},
               {{QStringLiteral("MEME_API"), QStringLiteral("http://127.0.0.1:9/")}});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(
        r.out.startsWith(QLatin1String("delete-data-test: failed: could not reach the server (")))
        << r.out.toStdString();
}

TEST(CommandLine, SearchCollectionsPrintsWhatTheCollectionsTabShows) {
    const QHash<QString, QString> noServer{
        {QStringLiteral("MEME_SERVER"), QStringLiteral("http://127.0.0.1:9/")}};
    OrvaneRun r = orvane({QStringLiteral("--search-collections"), QString()}, noServer);
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.out.startsWith(QStringLiteral("Collections are loading…")))
        << r.out.toStdString();

    const QByteArray collections = R"([
        {"id":"frogs","name":"Frogs","name_en":"Frogs","keywords":["pond"],"cover":"/t/f.png",
         "count":2,"owner":"Test","source":"Test"},
        {"id":"owls","name":"Owls at night","name_en":"Owls at night","keywords":["frog"],
         "cover":"/t/o.png","count":9,"owner":"Test","source":"Test"},
        {"id":"cats","name":"Cats","name_en":"Cats","keywords":[],"cover":"/t/c.png",
         "count":1,"owner":"Test","source":"Test"}])";
    const QByteArray stickers = R"([{"id":"f1","template":"","ocr_text":"","description":"a frog",
        "emotions":[],"use_cases":[],"keywords":[],"thumb":"/t/f.png","full":"/f/f.png",
        "width":1,"height":1,"bytes":1,"collection_id":"frogs"}])";
    const QString expected = QStringLiteral("2 collections · ↵ open · drag to insert · ⇥ memes · "
                                            "esc close\nfrogs\tFrogs\t2\nowls\tOwls at night\t9\n");
    {
        const Server server({{QStringLiteral("collections.json"), collections},
                             {QStringLiteral("stickers.json"), stickers},
                             {QStringLiteral("index.json"), QByteArrayLiteral("[]")}});
        ASSERT_FALSE(server.url().isEmpty());
        r = orvane({QStringLiteral("--search-collections"), QStringLiteral("FROG")},
                   {{QStringLiteral("MEME_SERVER"), server.url()}});
        EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
        EXPECT_EQ(r.out, expected);
    }
    // The server gone, the copies kept on disk answer.
    r = orvane({QStringLiteral("--search-collections"), QStringLiteral("FROG")}, noServer);
    EXPECT_EQ(r.out, expected);
}
