#pragma once

#include "options.h"
#include "pageplanner.h"
#include "progress.h"

#include <QRectF>

class QPainter;
class QSaveFile;
class QTextDocument;

namespace htmltopdf
{

// One conversion: reads the pages, lays them out on A4, writes the PDF
// through a QSaveFile (so a failed or stopped run leaves no half file and an
// existing file untouched) and reports progress. Returns an EExitCode.
class CConverter
{
public:
    explicit CConverter(const SOptions& options);

    int run();

private:
    int fail(int exitCode, const QString& message);
    int stop(QSaveFile* file);
    void warnMissingResources(const QStringList& missing);
    static void drawSlice(QPainter* painter, QTextDocument* document, const SPageSlice& slice,
                          const QRectF& content, qreal pageWidth);
    // The document from top to bottom (ink to inkBottom) with its top at y.
    static void drawRegion(QPainter* painter, QTextDocument* document, qreal top, qreal bottom, qreal inkBottom,
                           qreal y, qreal left, qreal pageWidth);

    SOptions m_options;
    CProgress m_progress;
};

} // namespace htmltopdf
