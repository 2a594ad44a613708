#pragma once

#include <QPolygonF>
#include <QVector>
#include <QWidget>

// The fingerprint-quality chart of a learning run: one point per reference
// photo, its height the photo's NMSE, so the user sees the fingerprint
// converge. Fixed at 500 × 400 scaled pixels; every value is drawn at once.
class CStatisticsDlg : public QWidget
{
    Q_OBJECT

public:
    explicit CStatisticsDlg(int photoCount, QWidget* parent = nullptr);

    void addValue(float nmse);

    int photoCount() const { return m_photoCount; }
    const QPolygonF& points() const { return m_points; }
    float maxValue() const { return m_maxValue; }
    double scale() const { return m_scale; }
    // How many times the chart has been painted (tests check that addValue paints at once).
    int paintCount() const { return m_paintCount; }

    // The photo numbers that get a tick on the horizontal axis.
    static QVector<int> tickPhotos(int photoCount);
    // The values that get a tick on the vertical axis, and its top.
    static QVector<double> tickValues(float maxValue);
    static double axisTop(float maxValue);
    // Pixels per unit of NMSE for a plot of this height.
    static double pixelsPerUnit(float maxValue, double plotHeight);

    // The plot area inside the widget.
    QRectF plotRect() const;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    int m_photoCount;
    QPolygonF m_points;
    float m_maxValue = 0.0f;
    double m_scale = 1.0;
    int m_paintCount = 0;
};
