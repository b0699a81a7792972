// SPDX-License-Identifier: MIT
#include "app/captioncommands.h"

#include "base/atomicfile.h"
#include "catalog/imageconversion.h"
#include "insert/captionfile.h"
#include "insert/captionrenderer.h"
#include "search/localindex.h"
#include "search/pickermodel.h"
#include "userdata/userdata.h"

#include <QImageReader>
#include <QTemporaryDir>

namespace {

// Whether some pixel of `band` is near white and some near black: caption letters are white
// with a black outline, which a flat grey image has neither of.
bool showsLetters(const QImage& image, QRect band) {
    bool white = false;
    bool black = false;
    for (int y = band.top(); y <= band.bottom(); ++y)
        for (int x = band.left(); x <= band.right(); ++x) {
            const int v = qGray(image.pixel(x, y));
            white = white || v > 235;
            black = black || v < 20;
        }
    return white && black;
}

} // namespace

int runCaptionTest(QTextStream& out) {
    QTemporaryDir dir;
    auto index = LocalIndex::open(dir.filePath(QStringLiteral("index.sqlite")));
    if (!index) {
        out << "caption-test: could not open a temporary index" << Qt::endl;
        return 1;
    }
    Meme meme;
    meme.id = QStringLiteral("m_caption");
    meme.description = QStringLiteral("a grey square for the caption check");
    meme.full = QStringLiteral("full/m_caption.png");
    meme.thumb = QStringLiteral("thumb/m_caption.png");
    const MemeList memes{meme};
    index->rebuild(memes, QString(64, QLatin1Char('c')));
    index->waitUntilCommitted();

    UserData userData(dir.filePath(QStringLiteral("userdata.json")));
    PickerModel picker(nullptr, &userData);
    picker.setIndex(std::shared_ptr<LocalIndex>(std::move(index)), memes);
    picker.searchTextEdited(QStringLiteral("grey square"));
    picker.beginCaption();
    const bool opened = picker.caption().has_value();
    out << "caption-test: editor open=" << (opened ? "true" : "false") << Qt::endl;

    picker.setCaptionLine(CaptionDraft::Line::top, QStringLiteral("when the build"));
    picker.setCaptionLine(CaptionDraft::Line::bottom, QStringLiteral("is green"));
    QImage grey(400, 300, QImage::Format_RGB32);
    grey.fill(QColor(128, 128, 128));
    const std::optional<QImage> drawn =
        CaptionRenderer::render(grey, picker.caption() ? picker.caption()->top : QString(),
                                picker.caption() ? picker.caption()->bottom : QString());
    const bool top = drawn && showsLetters(*drawn, QRect(0, 0, 400, 90));
    const bool middle = drawn && showsLetters(*drawn, QRect(0, 120, 400, 60));
    const bool bottom = drawn && showsLetters(*drawn, QRect(0, 210, 400, 90));
    out << "caption-test: letters top=" << top << " middle=" << middle << " bottom=" << bottom
        << Qt::endl;

    picker.cancelCaption();
    const bool closed = !picker.caption().has_value();
    out << "caption-test: after esc editor open=" << (closed ? "false" : "true") << Qt::endl;
    const bool ok = opened && top && !middle && bottom && closed;
    out << "caption-test: " << (ok ? "ok" : "FAILED") << Qt::endl;
    return ok ? 0 : 1;
}

int runRenderCaption(const QString& in, const QString& top, const QString& bottom,
                     const QString& out, QTextStream& err) {
    QImageReader reader(in);
    reader.setDecideFormatFromContent(true);
    reader.setAutoTransform(true);
    const QImage source = reader.read();
    if (source.isNull()) {
        err << "orvane: cannot read " << in << ": " << reader.errorString() << Qt::endl;
        return 1;
    }
    const std::optional<QImage> drawn = CaptionRenderer::render(source, top, bottom);
    const std::optional<QByteArray> jpeg =
        drawn ? ImageConversion::jpegData(*drawn, CaptionFile::jpegQuality) : std::nullopt;
    if (!jpeg) {
        err << "orvane: Could not render the caption" << Qt::endl;
        return 1;
    }
    if (!writeFileAtomically(out, *jpeg)) {
        err << "orvane: cannot write " << out << Qt::endl;
        return 1;
    }
    return 0;
}
