#pragma once

#include "validation.h"

#include <QImage>
#include <QString>

namespace cli
{

// The PCE histograms of the true and false pairs of the original photos on a
// logarithmic axis, the decision threshold marked.
QImage pceHistogram(const QList<SValidationPair>& pairs);

// The ROC curve of the original photos over PCE, the threshold's point marked.
QImage rocCurve(const QList<SValidationPair>& pairs);

// Writes the PDF validation report through the HTML converter, its working
// files in workFolder; an error text when it cannot. Needs a GUI application
// object (text is drawn into the plots).
QString writeValidationReport(const SValidationReport& report, const QString& pdfPath,
                              const QString& workFolder);

} // namespace cli
