#include "statisticsdlg.h"

#include "mainwindow.h"
#include "resources.h"

#include <QPainter>
#include <QPainterPath>

namespace
{
QColor styleColour(const char* name, const QColor& fallback)
{
    const QColor colour(quorvex::styleConstant(QString::fromLatin1(name)));
    return colour.isValid() ? colour : fallback;
}
} // namespace

CStatisticsDlg::CStatisticsDlg(int photoCount, QWidget* parent)
    : QWidget(parent)
    , m_photoCount(photoCount)
    , m_scale(CMainWindow::currentScale())
{
    setObjectName(QStringLiteral("statisticsDlg"));
    const QSize size(qRound(500 * m_scale), qRound(400 * m_scale));
    setMinimumSize(size);
    setMaximumSize(size);
}

void CStatisticsDlg::addValue(float nmse)
{
    m_maxValue = qMax(m_maxValue, nmse);
    m_points.append(QPointF(m_points.size() + 1, nmse));
    // Drawn before returning: the chart must show each photo as it is learned,
    // even while the event loop is busy with the next one.
    repaint();
}

QVector<int> CStatisticsDlg::tickPhotos(int photoCount)
{
    QVector<int> ticks;
    const int step = qMax(photoCount / 10, 1);
    for (int i = step; i <= photoCount; i += step)
        ticks.append(i);
    return ticks;
}

double CStatisticsDlg::axisTop(float maxValue)
{
    return qMin(static_cast<double>(maxValue) * 1.2, 1.1);
}

QVector<double> CStatisticsDlg::tickValues(float maxValue)
{
    QVector<double> ticks;
    const double top = axisTop(maxValue);
    // Counted in tenths so 0.3 is not lost to 0.1 + 0.1 + 0.1 rounding.
    for (int tenth = 0; tenth / 10.0 <= top + 1e-9; ++tenth)
        ticks.append(tenth / 10.0);
    return ticks;
}

double CStatisticsDlg::pixelsPerUnit(float maxValue, double plotHeight)
{
    const double span = static_cast<double>(maxValue) * 1.2;
    if (span <= 1.0 && span > 0.0)
        return plotHeight / span;
    return plotHeight;
}

QRectF CStatisticsDlg::plotRect() const
{
    // Left: 50 scaled pixels for the tick labels plus a line for the turned
    // axis title, which would otherwise run over the labels. Top for the
    // title, bottom for the tick labels and the axis title.
    const QRectF all = rect();
    const double line = fontMetrics().height();
    return all.adjusted(50 * m_scale + line, 50 * m_scale, -20 * m_scale, -70 * m_scale);
}

void CStatisticsDlg::paintEvent(QPaintEvent*)
{
    ++m_paintCount;
    QPainter painter(this);
    // The style's surface, a little transparent over the page.
    QColor background = styleColour("COLOR_SURFACE", palette().color(QPalette::Window));
    background.setAlpha(160);
    painter.fillRect(rect(), background);

    const QRectF plot = plotRect();
    const double h = fontMetrics().height();
    const QColor text = styleColour("COLOR_TEXT", palette().color(QPalette::WindowText));
    painter.setPen(text);

    // Titles.
    QFont titleFont = font();
    titleFont.setBold(true);
    titleFont.setPixelSize(qMax(1, qRound(22 * m_scale)));
    painter.setFont(titleFont);
    painter.drawText(QRectF(0, 0, width(), plot.top() - h * 0.5), Qt::AlignHCenter | Qt::AlignBottom,
                     tr("Fingerprint quality"));

    QFont axisFont = font();
    axisFont.setBold(false);
    axisFont.setPixelSize(qMax(1, qRound(16 * m_scale)));
    painter.setFont(axisFont);
    painter.drawText(QRectF(0, plot.bottom() + 2.2 * h, width(), height() - plot.bottom() - 2.2 * h),
                     Qt::AlignHCenter | Qt::AlignTop, tr("Photos loaded"));
    painter.save();
    painter.translate(0, plot.center().y());
    painter.rotate(-90);
    QFont sideFont = font();
    sideFont.setPixelSize(qMax(1, qRound(12 * m_scale)));
    painter.setFont(sideFont);
    painter.drawText(QRectF(-plot.height() / 2, 0, plot.height(), 2 * h), Qt::AlignHCenter | Qt::AlignTop,
                     tr("Normalised mean squared error (NMSE)"));
    painter.restore();

    QFont labelFont = font();
    labelFont.setBold(false);
    labelFont.setPixelSize(qMax(1, qRound(12 * m_scale)));
    painter.setFont(labelFont);

    // Axes.
    painter.drawLine(plot.bottomLeft(), plot.bottomRight());
    painter.drawLine(plot.bottomLeft(), plot.topLeft());

    const double xStep = m_photoCount > 1 ? (plot.width() - h) / (m_photoCount - 1) : 0.0;
    const auto xOf = [&](double photo) { return plot.left() + (photo - 1) * xStep; };
    for (int photo : tickPhotos(m_photoCount))
    {
        const double x = xOf(photo);
        painter.drawLine(QPointF(x, plot.bottom()), QPointF(x, plot.bottom() + h / 2));
        painter.drawText(QRectF(x - 3 * h, plot.bottom() + 1.5 * h - h / 2, 6 * h, h), Qt::AlignCenter,
                         QString::number(photo));
    }

    const double perUnit = pixelsPerUnit(m_maxValue, plot.height());
    const auto yOf = [&](double value) { return plot.bottom() - value * perUnit; };
    for (double value : tickValues(m_maxValue))
    {
        const double y = yOf(value);
        painter.drawLine(QPointF(plot.left() - h / 2, y), QPointF(plot.left(), y));
        painter.drawText(QRectF(plot.left() - 1.5 * h - 6 * h, y - h / 2, 6 * h, h), Qt::AlignRight | Qt::AlignVCenter,
                         QString::number(value, 'g', 6));
    }

    // Points, joined in order.
    painter.setRenderHint(QPainter::Antialiasing, true);
    const QColor accent = styleColour("COLOR_ACCENT", QColor(0x2f, 0xb3, 0xa8));
    painter.setPen(QPen(accent, 2 * m_scale));
    painter.setBrush(accent);
    const double radius = 0.65 * h / 2;
    QPointF previous;
    for (int i = 0; i < m_points.size(); ++i)
    {
        const QPointF at(xOf(m_points.at(i).x()), yOf(m_points.at(i).y()));
        if (i > 0)
            painter.drawLine(previous, at);
        painter.drawEllipse(at, radius, radius);
        previous = at;
    }
}
