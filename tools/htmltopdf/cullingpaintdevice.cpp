#include "cullingpaintdevice.h"

namespace htmltopdf
{

CCullingPaintDevice::CCullingPaintDevice(const QPaintDevice* metricsFrom) : m_metricsFrom(metricsFrom) {}

void CCullingPaintDevice::setTarget(QPainter* target, const QRectF& visibleArea)
{
    m_engine.setTarget(target, visibleArea);
}

QPaintEngine* CCullingPaintDevice::paintEngine() const
{
    return &m_engine;
}

int CCullingPaintDevice::metric(PaintDeviceMetric metric) const
{
    // Same figures as the real device, so fonts and pictures measure alike.
    switch (metric)
    {
    case PdmWidth:
        return m_metricsFrom->width();
    case PdmHeight:
        return m_metricsFrom->height();
    case PdmWidthMM:
        return m_metricsFrom->widthMM();
    case PdmHeightMM:
        return m_metricsFrom->heightMM();
    case PdmNumColors:
        return m_metricsFrom->colorCount();
    case PdmDepth:
        return m_metricsFrom->depth();
    case PdmDpiX:
        return m_metricsFrom->logicalDpiX();
    case PdmDpiY:
        return m_metricsFrom->logicalDpiY();
    case PdmPhysicalDpiX:
        return m_metricsFrom->physicalDpiX();
    case PdmPhysicalDpiY:
        return m_metricsFrom->physicalDpiY();
    case PdmDevicePixelRatio:
        return m_metricsFrom->devicePixelRatio();
    case PdmDevicePixelRatioScaled:
        return static_cast<int>(m_metricsFrom->devicePixelRatioF() * devicePixelRatioFScale());
    }
    return 0;
}

} // namespace htmltopdf
