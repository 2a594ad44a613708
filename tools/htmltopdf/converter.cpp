#include "converter.h"

#include "cullingpaintdevice.h"
#include "exitcode.h"
#include "interruption.h"
#include "pageband.h"
#include "reportdocument.h"
#include "tableofcontents.h"

#include <QAbstractTextDocumentLayout>
#include <QBuffer>
#include <QDir>
#include <QFileInfo>
#include <QPainter>
#include <QPdfWriter>
#include <QSaveFile>

#include <cstdio>
#include <memory>

namespace htmltopdf
{

namespace
{

// Layout at 96 dots per inch, so the document's CSS pixels keep their size.
constexpr qreal Dpi = 96;

constexpr qreal fromMm(qreal mm)
{
    return mm * Dpi / 25.4;
}

constexpr qreal PageWidth = fromMm(210);
constexpr qreal PageHeight = fromMm(297);
constexpr qreal SideMargin = fromMm(15);
constexpr qreal MinimumMargin = fromMm(15);
constexpr qreal BandEdge = fromMm(8); // paper edge to header or footer
constexpr qreal BandGap = fromMm(4);  // header or footer to the text
// However long a header or footer, the text keeps most of the page.
constexpr qreal MaximumBandHeight = PageHeight / 5;

// Progress figures at the end of each stage; the pages take the rest.
constexpr int LoadedPercent = 5;
constexpr int LaidOutPercent = 10;
constexpr int PagesDonePercent = 99;

void message(const QString& text)
{
    std::fprintf(stderr, "HtmlToPdf: %s\n", qUtf8Printable(text));
    std::fflush(stderr);
}

QString folderOf(const QString& file)
{
    return file.isEmpty() ? QDir::currentPath() : QFileInfo(file).absolutePath();
}

// One sheet of the PDF: which document, which part of it, and whether it
// carries the header and footer (body pages only, not cover or contents).
struct SSheet
{
    QTextDocument* document;
    SPageSlice slice;
    bool withBands;
};

void setUpWriter(QPdfWriter* writer)
{
    writer->setResolution(static_cast<int>(Dpi));
    // Margins are ours: the painter gets the whole sheet.
    writer->setPageLayout(QPageLayout(QPageSize(QPageSize::A4), QPageLayout::Portrait, QMarginsF(0, 0, 0, 0),
                                      QPageLayout::Millimeter));
    writer->setCreator(QStringLiteral("Quorvex HtmlToPdf"));
}

} // namespace

CConverter::CConverter(const SOptions& options) : m_options(options) {}

int CConverter::fail(int exitCode, const QString& text)
{
    message(text);
    return exitCode;
}

int CConverter::stop(QSaveFile* file)
{
    if (file)
        file->cancelWriting(); // the temporary file goes with the QSaveFile
    message(QStringLiteral("interrupted; no file written"));
    return ExitInterrupted;
}

void CConverter::warnMissingResources(const QStringList& missing)
{
    for (const QString& name : missing)
        message(QStringLiteral("warning: cannot load %1").arg(name));
}

void CConverter::drawSlice(QPainter* painter, QTextDocument* document, const SPageSlice& slice,
                           const QRectF& content, qreal pageWidth)
{
    qreal y = content.top();
    if (slice.headerBottom > slice.headerTop)
    {
        drawRegion(painter, document, slice.headerTop, slice.headerBottom, slice.headerBottom, y, content.left(),
                   pageWidth);
        y += slice.headerBottom - slice.headerTop;
    }
    drawRegion(painter, document, slice.top, slice.bottom, slice.inkBottom, y, content.left(), pageWidth);
}

void CConverter::drawRegion(QPainter* painter, QTextDocument* document, qreal top, qreal bottom, qreal inkBottom,
                            qreal y, qreal left, qreal pageWidth)
{
    painter->save();
    CCullingPaintDevice canvas(painter->device());
    canvas.setTarget(painter, QRectF(0, y, pageWidth, bottom - top));
    QPainter culling(&canvas);
    culling.translate(left, y - top);
    // Wide content may run into the side margins, never past the paper; the
    // last line's descenders may reach below the cut.
    const QRectF area(-left, top, pageWidth, inkBottom - top);
    culling.setClipRect(area);
    QAbstractTextDocumentLayout::PaintContext context;
    context.clip = area;
    context.palette.setColor(QPalette::Text, Qt::black);
    document->documentLayout()->draw(&culling, context);
    culling.end();
    painter->restore();
}

int CConverter::run()
{
    m_progress.report(0);

    // Everything is read before the output is touched. While no file is
    // open for writing a signal ends the program at once: Qt's layout of a
    // large page cannot be broken off.
    auto endAtOnce = std::make_unique<CInterruptsEndAtOnce>();
    QString error;
    QString bodyHtml;
    if (!CReportDocument::readHtmlFile(m_options.inputFile, &bodyHtml, &error))
        return fail(ExitInputFailed, error);
    QString coverHtml;
    if (!m_options.coverFile.isEmpty() &&
        !CReportDocument::readHtmlFile(m_options.coverFile, &coverHtml, &error))
        return fail(ExitInputFailed, error);
    QString headerHtml;
    if (!m_options.header.htmlFile.isEmpty() &&
        !CReportDocument::readHtmlFile(m_options.header.htmlFile, &headerHtml, &error))
        return fail(ExitInputFailed, error);
    QString footerHtml;
    if (!m_options.footer.htmlFile.isEmpty() &&
        !CReportDocument::readHtmlFile(m_options.footer.htmlFile, &footerHtml, &error))
        return fail(ExitInputFailed, error);

    const QString output = QDir::toNativeSeparators(m_options.outputFile);
    if (QFileInfo(m_options.outputFile).isDir())
        return fail(ExitOutputFailed, QStringLiteral("cannot write %1: it is a folder").arg(output));
    endAtOnce.reset();
    {
        // Tried now, so an unwritable output is known before the long layout;
        // the PDF itself is opened only once the pages are laid out.
        QSaveFile probe(m_options.outputFile);
        if (!probe.open(QIODevice::WriteOnly))
            return fail(ExitOutputFailed,
                        QStringLiteral("cannot write %1: %2").arg(output, probe.errorString()));
        probe.cancelWriting();
    }
    endAtOnce = std::make_unique<CInterruptsEndAtOnce>();

    // The layout is measured on a writer that never writes; the one that
    // does, set up the same way, comes with the output file.
    QBuffer unused;
    QPdfWriter measure(&unused);
    setUpWriter(&measure);

    const qreal contentWidth = PageWidth - 2 * SideMargin;
    const CPageBand header(m_options.header, headerHtml, folderOf(m_options.header.htmlFile), &measure,
                           contentWidth, MaximumBandHeight);
    const CPageBand footer(m_options.footer, footerHtml, folderOf(m_options.footer.htmlFile), &measure,
                           contentWidth, MaximumBandHeight);
    // The margins grow with the header and footer, so they never cover text.
    const qreal top =
        header.isEmpty() ? MinimumMargin : qMax(MinimumMargin, BandEdge + header.height() + BandGap);
    const qreal bottom =
        footer.isEmpty() ? MinimumMargin : qMax(MinimumMargin, BandEdge + footer.height() + BandGap);
    const QRectF content(SideMargin, top, contentWidth, PageHeight - top - bottom);

    CReportDocument body(&measure);
    body.setSource(bodyHtml, folderOf(m_options.inputFile));
    m_progress.report(LoadedPercent);

    body.layOut(contentWidth);
    const CPagePlanner bodyPlanner(&body);
    const QVector<SPageSlice> bodySlices = bodyPlanner.plan(content.height());
    warnMissingResources(body.missingResources());

    std::unique_ptr<CReportDocument> cover;
    QVector<SPageSlice> coverSlices;
    if (!m_options.coverFile.isEmpty())
    {
        cover = std::make_unique<CReportDocument>(&measure);
        cover->setSource(coverHtml, folderOf(m_options.coverFile));
        cover->layOut(contentWidth);
        coverSlices = CPagePlanner(cover.get()).plan(content.height());
        warnMissingResources(cover->missingResources());
    }
    // A picture beyond the limits fails the conversion: left out, it would
    // be a photo silently missing from the report.
    QStringList refused = header.refusedResources() + footer.refusedResources() + body.refusedResources();
    if (cover)
        refused += cover->refusedResources();
    if (!refused.isEmpty())
        return fail(ExitInputFailed, QStringLiteral("not converted, beyond the limits: %1")
                                         .arg(refused.join(QStringLiteral("; "))));

    std::unique_ptr<CReportDocument> contents;
    QVector<SPageSlice> contentsSlices;
    if (m_options.tableOfContents)
    {
        CTableOfContents toc;
        toc.collect(&body, bodyPlanner, bodySlices);
        contents = std::make_unique<CReportDocument>(&measure);
        // The body's page numbers depend on the length of the contents: lay
        // it out until the count it assumed is the count it takes.
        int contentsPages = 1;
        for (int attempt = 0; attempt < 3; ++attempt)
        {
            contents->setSource(toc.html(coverSlices.size() + contentsPages + 1), QString());
            contents->layOut(contentWidth);
            contentsSlices = CPagePlanner(contents.get()).plan(content.height());
            if (contentsSlices.size() == contentsPages)
                break;
            contentsPages = contentsSlices.size();
        }
    }

    QVector<SSheet> sheets;
    for (const SPageSlice& slice : qAsConst(coverSlices))
        sheets.append({cover.get(), slice, false});
    for (const SPageSlice& slice : qAsConst(contentsSlices))
        sheets.append({contents.get(), slice, false});
    for (const SPageSlice& slice : bodySlices)
        sheets.append({&body, slice, true});
    m_progress.report(LaidOutPercent);

    // From here a signal only sets the flag, checked between pages, so the
    // partly written file is dropped before the program ends.
    endAtOnce.reset();
    if (interruptRequested())
        return stop(nullptr);
    QSaveFile file(m_options.outputFile);
    if (!file.open(QIODevice::WriteOnly))
        return fail(ExitOutputFailed, QStringLiteral("cannot write %1: %2").arg(output, file.errorString()));
    QPdfWriter writer(&file);
    setUpWriter(&writer);
    writer.setTitle(body.metaInformation(QTextDocument::DocumentTitle));

    QPainter painter;
    if (!painter.begin(&writer))
    {
        file.cancelWriting();
        return fail(ExitOutputFailed, QStringLiteral("cannot write %1").arg(output));
    }
    const int pageCount = sheets.size();
    for (int i = 0; i < pageCount; ++i)
    {
        if (i > 0)
            writer.newPage();
        const SSheet& sheet = sheets.at(i);
        if (sheet.withBands)
        {
            header.paint(&painter, QPointF(SideMargin, BandEdge), i + 1, pageCount);
            footer.paint(&painter, QPointF(SideMargin, PageHeight - BandEdge - footer.height()), i + 1,
                         pageCount);
        }
        drawSlice(&painter, sheet.document, sheet.slice, content, PageWidth);
        m_progress.report(LaidOutPercent, PagesDonePercent, i + 1, pageCount);
        if (interruptRequested())
        {
            painter.end();
            return stop(&file);
        }
    }
    if (!painter.end())
    {
        file.cancelWriting();
        return fail(ExitOutputFailed, QStringLiteral("cannot write %1").arg(output));
    }
    if (!file.commit())
        return fail(ExitOutputFailed, QStringLiteral("cannot write %1: %2").arg(output, file.errorString()));
    m_progress.report(100);
    return ExitDone;
}

} // namespace htmltopdf
