#include "cullingpaintengine.h"

#include <QPainter>
#include <QPainterPath>
#include <QTextItem>

namespace htmltopdf
{

CCullingPaintEngine::CCullingPaintEngine() : QPaintEngine(AllFeatures) {}

void CCullingPaintEngine::setTarget(QPainter* target, const QRectF& visibleArea)
{
    m_target = target;
    m_visible = visibleArea;
}

bool CCullingPaintEngine::begin(QPaintDevice*)
{
    return m_target != nullptr;
}

bool CCullingPaintEngine::end()
{
    return true;
}

void CCullingPaintEngine::setDeviceClip(const QPainterPath& path, Qt::ClipOperation operation)
{
    // Clips arrive in the coordinates of the moment they were set; the
    // target keeps them in device coordinates, whatever comes later.
    const QPainterPath devicePath = m_transform.map(path);
    m_target->setWorldTransform(QTransform());
    m_target->setClipPath(devicePath, operation);
    m_target->setWorldTransform(m_transform);
}

void CCullingPaintEngine::updateState(const QPaintEngineState& newState)
{
    const DirtyFlags flags = newState.state();
    if (flags & DirtyTransform)
    {
        m_transform = newState.transform();
        m_target->setWorldTransform(m_transform);
    }
    if (flags & DirtyPen)
        m_target->setPen(newState.pen());
    if (flags & DirtyBrush)
        m_target->setBrush(newState.brush());
    if (flags & DirtyBrushOrigin)
        m_target->setBrushOrigin(newState.brushOrigin());
    if (flags & DirtyBackground)
        m_target->setBackground(newState.backgroundBrush());
    if (flags & DirtyBackgroundMode)
        m_target->setBackgroundMode(newState.backgroundMode());
    if (flags & DirtyFont)
        m_target->setFont(newState.font());
    if (flags & DirtyHints)
        m_target->setRenderHints(newState.renderHints());
    if (flags & DirtyCompositionMode)
        m_target->setCompositionMode(newState.compositionMode());
    if (flags & DirtyOpacity)
        m_target->setOpacity(newState.opacity());
    if (flags & DirtyClipPath)
        setDeviceClip(newState.clipPath(), newState.clipOperation());
    if (flags & DirtyClipRegion)
    {
        QPainterPath path;
        path.addRegion(newState.clipRegion());
        setDeviceClip(path, newState.clipOperation());
    }
    if (flags & DirtyClipEnabled)
        m_target->setClipping(newState.isClipEnabled());
}

void CCullingPaintEngine::drawTextItem(const QPointF& position, const QTextItem& textItem)
{
    // Lines are never cut between pages, so a run of text belongs to the
    // page its middle is on.
    const QRectF box(position.x(), position.y() - textItem.ascent(), textItem.width(),
                     textItem.ascent() + textItem.descent());
    const qreal middle = m_transform.mapRect(box).center().y();
    if (middle < m_visible.top() || middle > m_visible.bottom())
        return;
    m_target->drawTextItem(position, textItem);
}

bool CCullingPaintEngine::overlapsVisible(const QRectF& rect) const
{
    // Pictures taller than a page are cut, so any overlap counts; one only
    // touching the edge, within rounding, belongs to the next page.
    return m_transform.mapRect(rect).intersects(m_visible.adjusted(0, 0.5, 0, -0.5));
}

void CCullingPaintEngine::drawPixmap(const QRectF& rect, const QPixmap& pixmap, const QRectF& source)
{
    if (!overlapsVisible(rect))
        return;
    m_target->drawPixmap(rect, pixmap, source);
}

void CCullingPaintEngine::drawImage(const QRectF& rect, const QImage& image, const QRectF& source,
                                    Qt::ImageConversionFlags flags)
{
    if (!overlapsVisible(rect))
        return;
    m_target->drawImage(rect, image, source, flags);
}

void CCullingPaintEngine::drawTiledPixmap(const QRectF& rect, const QPixmap& pixmap, const QPointF& offset)
{
    m_target->drawTiledPixmap(rect, pixmap, offset);
}

void CCullingPaintEngine::drawPath(const QPainterPath& path)
{
    m_target->drawPath(path);
}

void CCullingPaintEngine::drawPolygon(const QPointF* points, int pointCount, PolygonDrawMode mode)
{
    if (mode == PolylineMode)
        m_target->drawPolyline(points, pointCount);
    else
        m_target->drawPolygon(points, pointCount, mode == WindingMode ? Qt::WindingFill : Qt::OddEvenFill);
}

void CCullingPaintEngine::drawRects(const QRectF* rects, int rectCount)
{
    m_target->drawRects(rects, rectCount);
}

void CCullingPaintEngine::drawLines(const QLineF* lines, int lineCount)
{
    m_target->drawLines(lines, lineCount);
}

void CCullingPaintEngine::drawEllipse(const QRectF& rect)
{
    m_target->drawEllipse(rect);
}

void CCullingPaintEngine::drawPoints(const QPointF* points, int pointCount)
{
    m_target->drawPoints(points, pointCount);
}

} // namespace htmltopdf
