#pragma once

#include <QPaintEngine>
#include <QRectF>
#include <QTransform>

class QPainter;

namespace htmltopdf
{

// Passes every drawing call on to a real painter, except text (and images)
// lying wholly outside a visible area. A text layout drawn with a clip
// rectangle still paints the line just above it; clipped away on paper, its
// text would stay in the PDF, found twice by search and copy.
class CCullingPaintEngine : public QPaintEngine
{
public:
    CCullingPaintEngine();

    // visibleArea is in the target's device coordinates.
    void setTarget(QPainter* target, const QRectF& visibleArea);

    bool begin(QPaintDevice* device) override;
    bool end() override;
    void updateState(const QPaintEngineState& newState) override;

    void drawTextItem(const QPointF& position, const QTextItem& textItem) override;
    void drawPixmap(const QRectF& rect, const QPixmap& pixmap, const QRectF& source) override;
    void drawImage(const QRectF& rect, const QImage& image, const QRectF& source,
                   Qt::ImageConversionFlags flags) override;
    void drawTiledPixmap(const QRectF& rect, const QPixmap& pixmap, const QPointF& offset) override;
    void drawPath(const QPainterPath& path) override;
    void drawPolygon(const QPointF* points, int pointCount, PolygonDrawMode mode) override;
    void drawRects(const QRectF* rects, int rectCount) override;
    void drawLines(const QLineF* lines, int lineCount) override;
    void drawEllipse(const QRectF& rect) override;
    void drawPoints(const QPointF* points, int pointCount) override;

    Type type() const override { return User; }

private:
    bool overlapsVisible(const QRectF& rect) const;
    void setDeviceClip(const QPainterPath& path, Qt::ClipOperation operation);

    QPainter* m_target = nullptr;
    QRectF m_visible;
    QTransform m_transform;
};

} // namespace htmltopdf
