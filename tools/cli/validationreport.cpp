#include "validationreport.h"

#include "qutils/exception.h"
#include "qutils/htmltopdftask.h"
#include "qutils/tasks.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QPainter>
#include <QPainterPath>
#include <QRegularExpression>
#include <QTextStream>
#include <QUrl>

#include <algorithm>
#include <cmath>

namespace cli
{

namespace
{

const QString Original = QStringLiteral("original");
const QColor TrueColour(46, 139, 87);
const QColor FalseColour(192, 57, 43);
constexpr double Threshold = 60.0;

// Drawn at twice the size they are shown, so the PDF stays sharp.
constexpr int PlotScale = 2;

QFont plotFont(int pixels, bool bold = false)
{
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setPixelSize(pixels * PlotScale);
    font.setBold(bold);
    return font;
}

struct SPlotArea
{
    QRectF rect;
    double xFrom, xTo, yFrom, yTo;
    QPointF at(double x, double y) const
    {
        return {rect.left() + (x - xFrom) / (xTo - xFrom) * rect.width(),
                rect.bottom() - (y - yFrom) / (yTo - yFrom) * rect.height()};
    }
};

void drawFrame(QPainter& painter, const SPlotArea& area, const QString& xLabel, const QString& yLabel)
{
    painter.setPen(QPen(Qt::black, PlotScale));
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(area.rect);
    painter.setFont(plotFont(13));
    painter.drawText(
        QRectF(area.rect.left(), area.rect.bottom() + 30 * PlotScale, area.rect.width(), 22 * PlotScale),
        Qt::AlignCenter, xLabel);
    painter.save();
    painter.translate(16 * PlotScale, area.rect.center().y());
    painter.rotate(-90);
    painter.drawText(QRectF(-area.rect.height() / 2, -10 * PlotScale, area.rect.height(), 22 * PlotScale),
                     Qt::AlignCenter, yLabel);
    painter.restore();
}

void drawXTick(QPainter& painter, const SPlotArea& area, double x, const QString& label)
{
    const QPointF p = area.at(x, area.yFrom);
    painter.setPen(QPen(QColor(220, 220, 220), PlotScale));
    painter.drawLine(QPointF(p.x(), area.rect.top()), p);
    painter.setPen(QPen(Qt::black, PlotScale));
    painter.drawLine(p, p + QPointF(0, 6 * PlotScale));
    painter.setFont(plotFont(12));
    painter.drawText(QRectF(p.x() - 40 * PlotScale, p.y() + 8 * PlotScale, 80 * PlotScale, 20 * PlotScale),
                     Qt::AlignHCenter | Qt::AlignTop, label);
}

void drawYTick(QPainter& painter, const SPlotArea& area, double y, const QString& label)
{
    const QPointF p = area.at(area.xFrom, y);
    painter.setPen(QPen(QColor(220, 220, 220), PlotScale));
    painter.drawLine(p, QPointF(area.rect.right(), p.y()));
    painter.setPen(QPen(Qt::black, PlotScale));
    painter.drawLine(p, p - QPointF(6 * PlotScale, 0));
    painter.setFont(plotFont(12));
    painter.drawText(QRectF(p.x() - 58 * PlotScale, p.y() - 10 * PlotScale, 50 * PlotScale, 20 * PlotScale),
                     Qt::AlignRight | Qt::AlignVCenter, label);
}

void drawLegend(QPainter& painter, const QPointF& topLeft, const QList<QPair<QColor, QString>>& entries)
{
    painter.setFont(plotFont(12));
    QPointF at = topLeft;
    for (const auto& entry : entries)
    {
        painter.setPen(QPen(entry.first, PlotScale));
        QColor fill = entry.first;
        fill.setAlpha(110);
        painter.setBrush(fill);
        painter.drawRect(QRectF(at, QSizeF(14 * PlotScale, 14 * PlotScale)));
        painter.setPen(Qt::black);
        painter.drawText(at + QPointF(20 * PlotScale, 12 * PlotScale), entry.second);
        at += QPointF(0, 20 * PlotScale);
    }
}

QImage blankPlot(int width, int height)
{
    QImage image(width * PlotScale, height * PlotScale, QImage::Format_RGB32);
    image.fill(Qt::white);
    return image;
}

QString fileUrl(const QString& path)
{
    return QUrl::fromLocalFile(QFileInfo(path).absoluteFilePath()).toString(QUrl::FullyEncoded);
}

QString htmlTable(const QStringList& header, const QList<QStringList>& rows)
{
    QString html = QStringLiteral("<table><thead><tr>");
    for (const QString& cell : header)
        html += QStringLiteral("<th>%1</th>").arg(cell.toHtmlEscaped());
    html += QStringLiteral("</tr></thead><tbody>");
    for (const QStringList& row : rows)
    {
        html += QStringLiteral("<tr>");
        for (const QString& cell : row)
            html += QStringLiteral("<td>%1</td>").arg(cell.toHtmlEscaped());
        html += QStringLiteral("</tr>");
    }
    return html + QStringLiteral("</tbody></table>");
}

// The console's fixed-width lines of a table split back into cells.
QList<QStringList> splitColumns(const QStringList& lines)
{
    QList<QStringList> rows;
    for (const QString& line : lines)
        rows.append(line.split(QRegularExpression(QStringLiteral("\\s{2,}")), Qt::SkipEmptyParts));
    return rows;
}

} // namespace

QImage pceHistogram(const QList<SValidationPair>& pairs)
{
    QList<double> truePces;
    QList<double> falsePces;
    for (const SValidationPair& pair : pairs)
        if (pair.variant == Original && pair.compared())
            (pair.truePair() ? truePces : falsePces).append(pair.result.pce);

    // Four bins a decade from PCE 1 up; the first bin takes everything at or below 1,
    // where a logarithm has no place (noise gives PCE around 0, often below).
    constexpr int BinsPerDecade = 4;
    double maximum = Threshold * 10;
    for (const double v : truePces + falsePces)
        maximum = qMax(maximum, v);
    const int decades = static_cast<int>(std::ceil(std::log10(maximum) - 1e-9));
    const int bins = 1 + decades * BinsPerDecade;
    const auto binOf = [&](double pce)
    {
        if (pce <= 1.0)
            return 0;
        return qBound(1, 1 + static_cast<int>(std::floor(std::log10(pce) * BinsPerDecade)), bins - 1);
    };
    QVector<int> trueCounts(bins, 0);
    QVector<int> falseCounts(bins, 0);
    for (const double v : truePces)
        ++trueCounts[binOf(v)];
    for (const double v : falsePces)
        ++falseCounts[binOf(v)];
    int highest = 1;
    for (int i = 0; i < bins; ++i)
        highest = qMax(highest, qMax(trueCounts.at(i), falseCounts.at(i)));

    QImage image = blankPlot(820, 420);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    // x runs in bins: bin 0 is [-1, 0) in log units, bin k covers [(k-1)/4, k/4).
    SPlotArea area{QRectF(76 * PlotScale, 40 * PlotScale, 720 * PlotScale, 270 * PlotScale),
                   -1.0 / BinsPerDecade, static_cast<double>(decades), 0.0, highest * 1.1};
    painter.setFont(plotFont(15, true));
    painter.drawText(QRectF(0, 6 * PlotScale, image.width(), 26 * PlotScale), Qt::AlignCenter,
                     QStringLiteral("PCE of true and false pairs (original photos)"));
    const int step = std::max(1, static_cast<int>(std::ceil(highest / 6.0)));
    for (int y = 0; y <= highest; y += step)
        drawYTick(painter, area, y, QString::number(y));
    drawXTick(painter, area, -1.0 / BinsPerDecade, QStringLiteral("\u2264 1"));
    for (int d = 1; d <= decades; ++d)
        drawXTick(painter, area, d,
                  d <= 4 ? QString::number(std::pow(10.0, d), 'f', 0) : QStringLiteral("1e%1").arg(d));
    const auto drawBars = [&](const QVector<int>& counts, const QColor& colour, double offset)
    {
        QColor fill = colour;
        fill.setAlpha(150);
        painter.setPen(QPen(colour, PlotScale));
        painter.setBrush(fill);
        const double width = 1.0 / BinsPerDecade;
        for (int i = 0; i < bins; ++i)
        {
            if (counts.at(i) == 0)
                continue;
            const double left = (i - 1) * width + offset * width;
            painter.drawRect(QRectF(area.at(left, counts.at(i)), area.at(left + width / 2, 0)));
        }
    };
    drawBars(falseCounts, FalseColour, 0.0);
    drawBars(trueCounts, TrueColour, 0.5);

    const QPointF top = area.at(std::log10(Threshold), area.yTo);
    const QPointF bottom = area.at(std::log10(Threshold), 0);
    painter.setPen(QPen(Qt::black, 2 * PlotScale, Qt::DashLine));
    painter.drawLine(top, bottom);
    painter.setFont(plotFont(12));
    painter.drawText(top + QPointF(6 * PlotScale, 16 * PlotScale), QStringLiteral("threshold PCE 60"));
    drawFrame(painter, area, QStringLiteral("PCE (logarithmic scale)"), QStringLiteral("pairs"));
    drawLegend(painter, QPointF(area.rect.left(), area.rect.bottom() + 56 * PlotScale),
               {{TrueColour, QStringLiteral("true pairs (%1)").arg(truePces.size())},
                {FalseColour, QStringLiteral("false pairs (%1)").arg(falsePces.size())}});
    return image;
}

QImage rocCurve(const QList<SValidationPair>& pairs)
{
    // Every compared pair by falling PCE; ties move the curve diagonally.
    QList<QPair<double, bool>> scored;
    int positives = 0;
    for (const SValidationPair& pair : pairs)
        if (pair.variant == Original && pair.compared())
        {
            scored.append({pair.result.pce, pair.truePair()});
            positives += pair.truePair() ? 1 : 0;
        }
    const int negatives = scored.size() - positives;
    std::sort(scored.begin(), scored.end(), [](const auto& a, const auto& b) { return a.first > b.first; });

    QImage image = blankPlot(520, 470);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    SPlotArea area{QRectF(76 * PlotScale, 40 * PlotScale, 420 * PlotScale, 360 * PlotScale), 0.0, 1.0, 0.0,
                   1.0};
    painter.setFont(plotFont(15, true));
    painter.drawText(QRectF(0, 6 * PlotScale, image.width(), 26 * PlotScale), Qt::AlignCenter,
                     QStringLiteral("ROC over PCE (original photos)"));
    for (int i = 0; i <= 5; ++i)
    {
        drawXTick(painter, area, i / 5.0, QString::number(i / 5.0, 'f', 1));
        drawYTick(painter, area, i / 5.0, QString::number(i / 5.0, 'f', 1));
    }
    painter.setPen(QPen(QColor(150, 150, 150), PlotScale, Qt::DashLine));
    painter.drawLine(area.at(0, 0), area.at(1, 1));
    if (positives > 0 && negatives > 0)
    {
        QPainterPath path(area.at(0, 0));
        int tp = 0;
        int fp = 0;
        QPointF operating = area.at(0, 0);
        for (int i = 0; i < scored.size();)
        {
            const double score = scored.at(i).first;
            for (; i < scored.size() && scored.at(i).first == score; ++i)
                (scored.at(i).second ? tp : fp) += 1;
            const QPointF point =
                area.at(static_cast<double>(fp) / negatives, static_cast<double>(tp) / positives);
            path.lineTo(point);
            if (score >= Threshold)
                operating = point;
        }
        painter.setPen(QPen(TrueColour.darker(120), 3 * PlotScale));
        painter.setBrush(Qt::NoBrush);
        painter.drawPath(path);
        painter.setPen(QPen(Qt::black, PlotScale));
        painter.setBrush(Qt::black);
        painter.drawEllipse(operating, 5 * PlotScale, 5 * PlotScale);
        painter.setFont(plotFont(12));
        painter.drawText(operating + QPointF(10 * PlotScale, 22 * PlotScale), QStringLiteral("PCE 60"));
    }
    else
    {
        painter.setPen(Qt::black);
        painter.setFont(plotFont(13));
        painter.drawText(area.rect, Qt::AlignCenter, QStringLiteral("needs compared true and false pairs"));
    }
    drawFrame(painter, area, QStringLiteral("false-positive rate"), QStringLiteral("true-positive rate"));
    return image;
}

QString writeValidationReport(const SValidationReport& report, const QString& pdfPath,
                              const QString& workFolder)
{
    const QDir folder(workFolder);
    const QString histogramPath = folder.filePath(QStringLiteral("pce-histogram.png"));
    const QString rocPath = folder.filePath(QStringLiteral("roc.png"));
    const QImage histogram = pceHistogram(report.pairs);
    const QImage roc = rocCurve(report.pairs);
    if (!histogram.save(histogramPath, "PNG") || !roc.save(rocPath, "PNG"))
        return QStringLiteral("the plots cannot be written to the temporary folder");

    QString html = QStringLiteral(
        "<!DOCTYPE html><html><head><meta charset=\"utf-8\"/><style>"
        "body { font-family: 'DejaVu Sans', sans-serif; font-size: 11px; color: #333333; }"
        "h1 { font-weight: normal; font-size: 24px; } h2 { font-size: 15px; margin-top: 18px; }"
        "table { border-collapse: collapse; margin: 4px 0px; page-break-inside: auto; }"
        "tr { page-break-inside: avoid; }"
        "th { background-color: #000000; color: #FFFFFF; padding: 3px 8px; text-align: left; }"
        "td { padding: 2px 8px; border-bottom: 1px solid #BBBBBB; word-wrap: break-word; }"
        "p.summary { font-size: 13px; font-weight: bold; color: #000000; }"
        "</style><title>Validation report</title></head><body>");
    html += QStringLiteral("<h1>Validation report</h1>");
    html += QStringLiteral("<p>Set: %1<br/>Date: %2</p>")
                .arg(QDir::toNativeSeparators(report.setPath).toHtmlEscaped(),
                     QDateTime::currentDateTime().toString(Qt::ISODate));
    html += QStringLiteral("<p class=\"summary\">%1</p>").arg(summaryLine(report.pairs).toHtmlEscaped());
    html += QStringLiteral(
        "<p>A pair is a questioned photo and a device's fingerprint; it is true when the photo "
        "comes from that device. A pair matches at PCE 60 or more. Pairs the engine could not "
        "compare are counted apart, never as misses.</p>");

    html += QStringLiteral("<h2>Devices</h2><p>");
    for (const QString& line : report.deviceLines)
        html += line.trimmed().toHtmlEscaped() + QStringLiteral("<br/>");
    html += QStringLiteral("</p>");

    html += QStringLiteral(
        "<h2>Confusion table of the original photos</h2><p>matched/compared (+N nc: N pairs not "
        "compared); rows: fingerprint, columns: the photos' device</p>");
    const QList<QStringList> confusion =
        splitColumns(confusionTable(report.pairs, report.fingerprints, report.photoDevices));
    html += htmlTable(confusion.first(), confusion.mid(1));

    html += QStringLiteral("<h2>Rates and PCE</h2><p>");
    const QStringList statistics = statisticsLines(report.pairs);
    QList<QStringList> spread;
    for (const QString& line : statistics)
    {
        if (line.startsWith(QLatin1String("PCE ")) || line.startsWith(QLatin1String("true pairs ")) ||
            line.startsWith(QLatin1String("false pairs ")))
            spread.append(
                line.split(QRegularExpression(QStringLiteral("\\s+(?=[-\\d])")), Qt::SkipEmptyParts));
        else if (!line.isEmpty())
            html += line.toHtmlEscaped() + QStringLiteral("<br/>");
    }
    html += QStringLiteral("</p>");
    if (!spread.isEmpty())
    {
        spread.first() = QStringList{QStringLiteral("PCE"), QStringLiteral("pairs"),  QStringLiteral("min"),
                                     QStringLiteral("10%"), QStringLiteral("median"), QStringLiteral("90%"),
                                     QStringLiteral("max")};
        html += htmlTable(spread.first(), spread.mid(1));
    }
    // Rich text takes an image's size from its attributes only.
    const auto image = [](const QString& path, const QImage& plot, int width)
    {
        return QStringLiteral("<p align=\"center\"><img src=\"%1\" width=\"%2\" height=\"%3\"/></p>")
            .arg(fileUrl(path))
            .arg(width)
            .arg(qRound(static_cast<double>(width) * plot.height() / plot.width()));
    };
    html += image(histogramPath, histogram, 660);
    html += image(rocPath, roc, 420);

    if (report.variants.size() > 1)
    {
        html += QStringLiteral(
            "<h2>Changed copies of the questioned photos</h2><p>rotated-90: pixels turned "
            "clockwise; exif-rotated: only the EXIF orientation tag changed; crops at a quarter "
            "of the spare width from the left and a third of the spare height from the top; "
            "jpeg-75: recompressed at quality 75; scaled: area-averaged. Geometric copies are "
            "saved as JPEG at quality 95.</p>");
        QList<QStringList> rows;
        for (const QString& variant : report.variants)
        {
            const SPairCounts c = countPairs(report.pairs, variant);
            rows.append({variant, QStringLiteral("%1/%2").arg(c.trueMatched).arg(c.trueCompared),
                         QString::number(c.trueNotCompared),
                         QStringLiteral("%1/%2").arg(c.falseMatched).arg(c.falseCompared),
                         QString::number(c.falseNotCompared), pceText(c, report.pairs, true),
                         pceText(c, report.pairs, false)});
        }
        html += htmlTable({QStringLiteral("variant"), QStringLiteral("true matched"),
                           QStringLiteral("not compared"), QStringLiteral("false matched"),
                           QStringLiteral("not compared"), QStringLiteral("weakest true PCE"),
                           QStringLiteral("strongest false PCE")},
                          rows);
    }

    QList<QStringList> notCompared;
    for (const SValidationPair& pair : report.pairs)
        if (!pair.compared())
            notCompared.append({pair.fingerprintDevice, QDir::toNativeSeparators(pair.photoPath),
                                pair.variant, pair.whyNotCompared()});
    if (!notCompared.isEmpty())
    {
        html += QStringLiteral("<h2>Pairs not compared (%1)</h2>").arg(notCompared.size());
        html += htmlTable({QStringLiteral("fingerprint"), QStringLiteral("photo"), QStringLiteral("variant"),
                           QStringLiteral("reason")},
                          notCompared);
    }
    html += QStringLiteral("</body></html>");

    const QString htmlPath = folder.filePath(QStringLiteral("validation.html"));
    {
        QFile file(htmlPath);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return file.errorString();
        QTextStream stream(&file);
        stream.setCodec("utf-8");
        stream << html;
        stream.flush();
        if (stream.status() != QTextStream::Ok || !file.flush())
            return QStringLiteral("the report document cannot be written to the temporary folder");
    }
    auto conversion =
        qutils::makeTask<qutils::CHtmlToPdfTask>(htmlPath, QFileInfo(pdfPath).absoluteFilePath());
    conversion->setFooterLeft(QStringLiteral("Quorvex validation report"));
    try
    {
        if (!conversion->run())
            return QStringLiteral("the converter failed");
    }
    catch (const qutils::CException& e)
    {
        return e.message();
    }
    return QString();
}

} // namespace cli
