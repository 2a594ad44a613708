#pragma once

#include "cullingpaintengine.h"

#include <QPaintDevice>

namespace htmltopdf
{

// A paint device with the metrics of another (the PDF writer) whose
// painting goes to a painter on that device through CCullingPaintEngine.
class CCullingPaintDevice : public QPaintDevice
{
public:
    explicit CCullingPaintDevice(const QPaintDevice* metricsFrom);

    void setTarget(QPainter* target, const QRectF& visibleArea);

    QPaintEngine* paintEngine() const override;

protected:
    int metric(PaintDeviceMetric metric) const override;

private:
    const QPaintDevice* m_metricsFrom;
    mutable CCullingPaintEngine m_engine;
};

} // namespace htmltopdf
